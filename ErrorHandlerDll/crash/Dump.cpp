#include "ErrorHandlerDll/crash/Dump.h"

#include "ErrorHandlerDll/logging/LogEntry.h"
#include "ErrorHandlerDll/logging/ProcessLog.h"
#include "ErrorHandlerDll/unwind/StackWalk.h"
#include "QV/ErrnoScope.h"
#include "QV/FixedText.h"

namespace Crash
{

namespace
{

// A dump that has been left by a jump out of a nested fault keeps the log from others no longer than this. Each part starts
// it anew; none waits that long.
constexpr int kLeaseMs = 2000;

constexpr int kMaxSignalFrames = 3;

// Holds the logger's section, unless its owner could be waited for no longer.
class LogScope
{
public:
    LogScope(bool isInSignalHandler, bool endsInterruptedCall, const HeldSignals& signals)
        : m_endsInterruptedCall(isInSignalHandler && endsInterruptedCall && gFileLogger.Emergency().IsInCriticalSection())
    {
        if (!isInSignalHandler)
        {
            signals.Release(); // it may take as long as it takes
        }
        m_isHeld = gFileLogger.EnterCriticalSection(isInSignalHandler);
        signals.Hold();
    }
    ~LogScope()
    {
        if (!gFileLogger.Emergency().IsInCriticalSection())
        {
            return; // somebody has waited for this dump too long
        }
        if (m_endsInterruptedCall)
        {
            gFileLogger.Emergency().ForgetInterruptedCall();
            gFileLogger.Emergency().RestoreSectionDepth(0);
        }
        if (m_isHeld)
        {
            gFileLogger.LeaveCriticalSection();
        }
    }
    LogScope(const LogScope&) = delete;
    LogScope& operator=(const LogScope&) = delete;

    bool IsHeld() const noexcept { return m_isHeld; }

private:
    const bool m_endsInterruptedCall;
    bool m_isHeld = false;
};

} // namespace

SignalHandlers FindSignalHandlers(CallStack* callStack) noexcept
{
    if (DumpStack::Current() != nullptr)
    {
        return {}; // asked in a dump, of an emergency
    }
    CallStack own = {{}, nullptr, 0};
    if (callStack == nullptr)
    {
        callStack = &own;
        Unwind::CaptureRegisters(own.start);
    }
    SignalHandlers handlers;
    const ErrnoScope errnoScope;
    const HeldSignals signals;
    DumpStack::Run(
        [&](DumpStack&)
        {
            RunPart(
                [&]
                {
                    const auto walk = Unwind::WalkStack(callStack->start, callStack->frames, callStack->capacity);
                    callStack->count = walk.count;
                    handlers = {walk.signalFrames > 0 || !walk.reachedEnd, walk.signalFrames > kMaxSignalFrames};
                });
        });
    return handlers;
}

Dump* Dump::Current() noexcept
{
    const DumpStack* const stack = DumpStack::Current();
    return stack == nullptr ? nullptr : stack->m_dump;
}

Dump::Dump(DumpStack& stack, bool hasLog) noexcept : m_stack(stack), m_hasLog(hasLog)
{
    m_stack.m_dump = this;
    RunPart(
        [this]
        {
            if (HasLog())
            {
                gFileLogger.Emergency().BeginDump();
            }
        });
    RunPart([this] { m_output.Prepare(); });
}

Dump::~Dump()
{
    WriteLines();
    if (HasLog())
    {
        gFileLogger.Emergency().EndDump();
        gFileLogger.Emergency().EndLease(m_lease);
    }
    m_stack.m_dump = nullptr;
}

bool Dump::HasLog() noexcept
{
    m_hasLog = m_hasLog && gFileLogger.Emergency().SetLease(m_stack.Low(), m_stack.High(), kLeaseMs, m_lease);
    return m_hasLog;
}

bool Dump::RunOutermost(void (*run)(const void*), const void* body, const SignalHandlers& handlers, bool endsCall)
{
    const ErrnoScope errnoScope;
    const HeldSignals signals;
    if (handlers.isTooDeep)
    {
        return false;
    }
    const QV::SignalSafeScope signalSafe(handlers.isInOne);
    QV::SignalSafeScope::WaitLeftMs() = QV::SignalSafeScope::kMaxWaitMs; // also where a jump has left the scope before
    const LogScope log(handlers.isInOne, endsCall, signals);
    return DumpStack::Run(
        [&](DumpStack& stack)
        {
            const QV::SignalSafeScope boundsWaits; // and takes no heap, on an ordinary call either
            Dump dump(stack, log.IsHeld());
            if (!RunPart([&] { run(body); }))
            {
                dump.Print(kFaultInDump);
            }
        });
}

void Dump::WriteLines() noexcept
{
    RunPart(
        [this]
        {
            if (HasLog())
            {
                gFileLogger.Emergency().Flush();
            }
        });
    m_output.WriteLines();
}

void Dump::Log(int level, unsigned int mask, const char* source, const char* text)
{
    if (gFileLogger.CanWrite(level, mask) && !m_isLogDamaged)
    {
        m_isLogDamaged = !RunPart([=] { gFileLogger.Write(LogEntry(level, TextOrEmpty(source), TextOrEmpty(text))); });
    }
}

bool Dump::IsFault(int signal, int signalCode) noexcept
{
    return signal > 0 && (SetOf(signal) & kSignalsOfFaults) != 0 && (signalCode > 0 || signal == SIGABRT);
}

void Dump::LeaveFaultyPart(int signal, int signalCode) noexcept
{
    const DumpStack* const stack = DumpStack::Current();
    if (IsFault(signal, signalCode) && stack != nullptr && stack->m_place != nullptr)
    {
        siglongjmp(stack->m_place->m_context, 1);
    }
}

Place::Place() noexcept
    : m_stack(*DumpStack::Current()),
      m_outer(m_stack.m_place),
      m_isSignalSafe(QV::SignalSafeScope::GetState()),
      m_sectionDepth(gFileLogger.Emergency().GetSectionDepth())
{
    m_stack.m_place = this;
}

void Place::Restore() const noexcept
{
    m_stack.m_place = m_outer; // a fault in what follows must not come back here
    SetMask(m_stack.Mask());
    QV::SignalSafeScope::RestoreState(m_isSignalSafe);
    gFileLogger.Emergency().RestoreSectionDepth(m_sectionDepth);
    if (!m_isSignalSafe && gFileLogger.Emergency().IsInCriticalSection())
    {
        gFileLogger.Emergency().ForgetInterruptedCall();
    }
}

} // namespace Crash
