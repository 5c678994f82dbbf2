#include "ErrorHandlerDll/crash/Dump.h"

#include "ErrorHandlerDll/ErrnoKeeper.h"
#include "ErrorHandlerDll/crash/DumpOutput.h"
#include "ErrorHandlerDll/crash/DumpStack.h"
#include "ErrorHandlerDll/crash/SystemCall.h"
#include "ErrorHandlerDll/logging/ProcessLog.h"
#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <ctime>

namespace Crash
{
namespace
{

constinit ZelvoWinAPI::_CRITICAL_SECTION gDumpSection = {};

// Another thread's dump may itself have to wait for the log and for standard output. All waits together stay below the three
// seconds that a host's watchdog gives a dying process.
constexpr int kOtherDumpWaitMs = 3 * QV::EmergencyScope::kMaxWaitMs;

bool EnterDumpSection() noexcept
{
    int waitLeftMs = kOtherDumpWaitMs;
    return ZelvoWinAPI::TryEnterCriticalSection(&gDumpSection, waitLeftMs);
}

constexpr int kMostCallbacksThatFault = 3;

// Writing to a closed pipe, beyond the file size limit of the process or to the terminal of another job raises these; a dump
// must not end or stop the process earlier.
constexpr SignalSet kSignalsOfWriting = SetOf(SIGPIPE) | SetOf(SIGXFSZ) | SetOf(SIGTTOU);

constexpr SignalSet kSignalsOfFaults =
    SetOf(SIGSEGV) | SetOf(SIGBUS) | SetOf(SIGILL) | SetOf(SIGFPE) | SetOf(SIGABRT) | SetOf(SIGTRAP) | SetOf(SIGSYS);

constexpr SignalSet kSignalsOfWatchdogs = SetOf(SIGALRM); // a host may want to end a dump that takes too long

// Lets all signals wait but those of faults and watchdogs: a handler that ends the process, or dumps itself, would cut the
// dump.
class HeldSignals
{
public:
    HeldSignals() noexcept : m_pendingBefore(PendingSignals()), m_hostMask(SetMask(kAllSignals)) { Hold(); }
    ~HeldSignals()
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
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    void Hold() const noexcept { SetMask(m_hostMask | (kAllSignals & ~kSignalsOfFaults & ~kSignalsOfWatchdogs)); }

private:
    const SignalSet m_pendingBefore;
    const SignalSet m_hostMask;
};

} // namespace

class Dump::Scope
{
public:
    // First the dumps among each other, then the log: a dump that waits for another must not hold the log up.
    Scope() noexcept : m_hasDumpSection(EnterDumpSection()), m_hasLog(gFileLogger.EnterCriticalSection())
    {
        sScope = this;
        if (m_hasDumpSection)
        {
            StandardOutput::HoldLines();
        }
    }
    ~Scope()
    {
        if (m_hasLog)
        {
            gFileLogger.Emergency().EndDump();
            gFileLogger.LeaveCriticalSection();
        }
        if (m_hasDumpSection)
        {
            StandardOutput::ReleaseLines();
            ZelvoWinAPI::LeaveCriticalSection(&gDumpSection);
        }
        sScope = nullptr;
    }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

    const ErrnoKeeper m_errno;
    const QV::EmergencyScope m_emergency;
    const HeldSignals m_signals;
    const bool m_hasDumpSection;
    const bool m_hasLog;
};

constinit thread_local const Dump::Place* Dump::sPlace = nullptr;
constinit thread_local const Dump::Scope* Dump::sScope = nullptr;

bool Dump::IsUnderWay() noexcept
{
    return sScope != nullptr;
}

void Dump::RunOutermost(void (*run)(const void*), const void* body)
{
    const Scope scope;
    const auto runAll = [&]
    {
        struct Writer
        {
            ~Writer() { WriteLines(); }
        } writer;
        RunPart(
            [&]
            {
                if (scope.m_hasLog)
                {
                    gFileLogger.Emergency().BeginDump();
                }
            });
        RunPart(StandardOutput::Prepare);
        run(body);
    };
    RunOnDumpStack([](const void* all) { (*static_cast<decltype(&runAll)>(all))(); }, &runAll);
}

void Dump::WriteLines() noexcept
{
    if (sScope != nullptr && sScope->m_hasLog)
    {
        gFileLogger.Emergency().Flush();
    }
    StandardOutput::WriteLines();
}

bool Dump::IsFault(int signal) noexcept
{
    return signal > 0 && (SetOf(signal) & kSignalsOfFaults) != 0;
}

void Dump::LeaveFaultyPart() noexcept
{
    if (sPlace != nullptr)
    {
        siglongjmp(sPlace->m_context, 1);
    }
}

bool Dump::IsBeyondHelp() noexcept
{
    return IsUnderWay() || QV::EmergencyScope::GetDepth() >= kMostCallbacksThatFault;
}

void Dump::AfterForkInChild() noexcept
{
    if (sScope != nullptr && sScope->m_hasDumpSection)
    {
        ZelvoWinAPI::AdoptCriticalSection(&gDumpSection);
        return;
    }
    ZelvoWinAPI::InitializeCriticalSection(&gDumpSection); // its owner is no thread of the child
    StandardOutput::Forget();
    FreeDumpStacks();
}

Dump::Place::Place() noexcept
    : m_outer(sPlace),
      m_emergencyDepth(QV::EmergencyScope::GetDepth()),
      m_sectionDepth(gFileLogger.Emergency().GetSectionDepth())
{
    sPlace = this;
}

Dump::Place::~Place()
{
    sPlace = m_outer;
}

void Dump::Place::Restore() const noexcept
{
    sPlace = m_outer; // a fault in what follows must not come back here
    if (sScope != nullptr)
    {
        sScope->m_signals.Hold();
    }
    QV::EmergencyScope::RestoreDepth(m_emergencyDepth);
    gFileLogger.Emergency().RestoreSectionDepth(m_sectionDepth);
    StandardOutput::Recover();
    WriteLines();
}

} // namespace Crash
