#include "ErrorHandlerDll/crash/DumpScope.h"

#include "ErrorHandlerDll/Internal.h"
#include "ErrorHandlerDll/crash/StandardOutput.h"
#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <algorithm>
#include <ctime>
#include <iterator>
#include <sys/syscall.h>
#include <unistd.h>

namespace Crash
{

namespace
{

constinit ZelvoWinAPI::_CRITICAL_SECTION gDumpSection = {};

// Another thread's dump may itself have to wait for the log and for standard output. All waits together stay below the three
// seconds that a host's watchdog gives a dying process.
constexpr int kOtherDumpWaitMs = 3 * FileLogger::kEmergencyWaitMs;

constexpr int kMostCallbacksThatFault = 3;

// Writing to a closed pipe, beyond the file size limit of the process or to the terminal of another job raises these; a dump
// must not end or stop the process earlier.
constexpr SignalSet kSignalsOfWriting = SetOf(SIGPIPE) | SetOf(SIGXFSZ) | SetOf(SIGTTOU);

constexpr SignalSet kSignalsOfFaults = SetOf(SIGSEGV) | SetOf(SIGBUS) | SetOf(SIGILL) | SetOf(SIGFPE) | SetOf(SIGABRT) |
                                       SetOf(SIGTRAP) | SetOf(SIGSYS);

constexpr SignalSet kSignalsOfWatchdogs = SetOf(SIGALRM); // a host may want to end a dump that takes too long

} // namespace

constinit thread_local int DumpScope::sDepth = 0;
constinit thread_local const DumpScope::Place* DumpScope::sPlace = nullptr;
constinit thread_local DumpScope* DumpScope::sOutermost = nullptr;

DumpScope::DumpScope() noexcept : m_isOutermost(sDepth++ == 0)
{
    if (m_isOutermost)
    {
        sOutermost = this;
        HoldBackSignals();
        // First the dumps among each other, then the log: a dump that waits for another must not hold the log up.
        m_hasDumpSection = ZelvoWinAPI::TryEnterCriticalSection(&gDumpSection, kOtherDumpWaitMs);
        m_hasLog = gFileLogger.EnterCriticalSection();
        if (m_hasDumpSection)
        {
            StandardOutput::HoldLines();
        }
        if (m_hasLog)
        {
            gFileLogger.BufferDump(true);
        }
    }
}

DumpScope::~DumpScope()
{
    WriteLines();
    --sDepth;
    if (m_hasLog)
    {
        gFileLogger.BufferDump(false);
        gFileLogger.LeaveCriticalSection();
    }
    if (m_hasDumpSection)
    {
        StandardOutput::ReleaseLines();
        ZelvoWinAPI::LeaveCriticalSection(&gDumpSection);
    }
    if (m_isOutermost)
    {
        ReleaseSignals();
        sOutermost = nullptr;
    }
}

void DumpScope::WriteLines() noexcept
{
    if (sOutermost != nullptr && sOutermost->m_hasLog)
    {
        gFileLogger.FlushLogFile();
    }
    StandardOutput::WriteLines();
}

// A handler that ends the process, or dumps itself, would cut the dump.
void DumpScope::HoldBackSignals() noexcept
{
    m_pendingBefore = PendingSignals();
    m_hostMask = SetMask(kAllSignals);
    m_dumpMask = m_hostMask | (kAllSignals & ~kSignalsOfFaults & ~kSignalsOfWatchdogs);
    SetMask(m_dumpMask);
}

void DumpScope::ReleaseSignals() noexcept
{
    SignalSet raised = PendingSignals() & ~m_pendingBefore & kSignalsOfWriting;
    for (; raised != 0; raised &= raised - 1)
    {
        const SignalSet taken = raised & -raised;
        const timespec noWait = {};
        SystemCall(SYS_rt_sigtimedwait, ToArgument(&taken), 0, ToArgument(&noWait), sizeof taken);
    }
    SetMask(m_hostMask);
}

bool DumpScope::IsFault(int signal) noexcept
{
    return signal > 0 && (SetOf(signal) & kSignalsOfFaults) != 0;
}

void DumpScope::LeaveFaultyPart() noexcept
{
    if (sPlace != nullptr)
    {
        siglongjmp(sPlace->m_context, 1);
    }
}

void DumpScope::AfterForkInChild() noexcept
{
    if (sOutermost != nullptr && sOutermost->m_hasDumpSection)
    {
        ZelvoWinAPI::AdoptCriticalSection(&gDumpSection);
        return;
    }
    ZelvoWinAPI::InitializeCriticalSection(&gDumpSection); // its owner is no thread of the child
    StandardOutput::Forget();
    FreeDumpStacks();
}

bool DumpScope::IsBeyondHelp() noexcept
{
    return sDepth > 0 || QV::EmergencyScope::GetDepth() >= kMostCallbacksThatFault;
}

DumpScope::Place::Place() noexcept
    : m_outer(sPlace),
      m_dumpDepth(sDepth),
      m_emergencyDepth(QV::EmergencyScope::GetDepth()),
      m_sectionDepth(gFileLogger.GetSectionDepth())
{
    sPlace = this;
}

DumpScope::Place::~Place()
{
    sPlace = m_outer;
}

void DumpScope::Place::Restore() const noexcept
{
    sPlace = m_outer; // a fault in what follows must not come back here
    if (sOutermost != nullptr)
    {
        SetMask(sOutermost->m_dumpMask);
    }
    sDepth = m_dumpDepth;
    QV::EmergencyScope::RestoreDepth(m_emergencyDepth);
    gFileLogger.RestoreSectionDepth(m_sectionDepth);
    StandardOutput::Recover();
    WriteLines();
}

} // namespace Crash
