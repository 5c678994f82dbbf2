// Which signals wait while a thread dumps: all but those of faults, whose handler comes back to the dump. A handler that
// ends the process, dumps itself or jumps would cut the dump.
#ifndef ERRORHANDLERDLL_CRASH_HELDSIGNALS_H
#define ERRORHANDLERDLL_CRASH_HELDSIGNALS_H

#include "ErrorHandlerDll/unwind/SystemCall.h"

#include <csignal>
#include <ctime>

namespace Crash
{

constexpr Unwind::SignalSet kSignalsOfFaults = Unwind::SetOf(SIGSEGV) | Unwind::SetOf(SIGBUS) | Unwind::SetOf(SIGILL) |
                                               Unwind::SetOf(SIGFPE) | Unwind::SetOf(SIGABRT) | Unwind::SetOf(SIGTRAP) |
                                               Unwind::SetOf(SIGSYS);

// Writing to a closed pipe, beyond the file size limit of the process or to the terminal of another job raises these; a dump
// must not end or stop the process.
constexpr Unwind::SignalSet kSignalsOfWriting = Unwind::SetOf(SIGPIPE) | Unwind::SetOf(SIGXFSZ) | Unwind::SetOf(SIGTTOU);

class HeldSignals
{
public:
    HeldSignals() noexcept : m_pendingBefore(Unwind::PendingSignals()), m_hostMask(Unwind::SetMask(Unwind::kAllSignals))
    {
        Hold();
    }
    ~HeldSignals()
    {
        Unwind::SignalSet raised = Unwind::PendingSignals() & ~m_pendingBefore & kSignalsOfWriting;
        for (; raised != 0; raised &= raised - 1)
        {
            const Unwind::SignalSet taken = raised & -raised;
            const timespec noWait = {};
            Unwind::SystemCall(SYS_rt_sigtimedwait, Unwind::ToArgument(&taken), 0, Unwind::ToArgument(&noWait),
                               sizeof taken);
        }
        Release();
    }
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    void Hold() const noexcept { Unwind::SetMask(m_hostMask | (Unwind::kAllSignals & ~kSignalsOfFaults)); }
    void Release() const noexcept { Unwind::SetMask(m_hostMask); }

private:
    const Unwind::SignalSet m_pendingBefore;
    const Unwind::SignalSet m_hostMask;
};

} // namespace Crash

#endif
