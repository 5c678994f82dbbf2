// Sets of signals as the kernel has them, an eighth of the C library's, which a small signal stack has no room for; and
// which of them wait while a thread dumps.
#ifndef ERRORHANDLERDLL_CRASH_SIGNALS_H
#define ERRORHANDLERDLL_CRASH_SIGNALS_H

#include "ErrorHandlerDll/unwind/SystemCall.h"

#include <csignal>
#include <cstdint>
#include <ctime>

namespace Crash
{

using Unwind::SystemCall;
using Unwind::ToArgument;

using SignalSet = std::uint64_t;

constexpr SignalSet kAllSignals = ~SignalSet{0};

constexpr SignalSet SetOf(auto... signals)
{
    return (SignalSet{0} | ... | (SignalSet{1} << (signals - 1)));
}

constexpr SignalSet kSignalsOfFaults = SetOf(SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP, SIGSYS);

// Writing to a closed pipe, beyond the file size limit of the process or to the terminal of another job raises these; a dump
// must not end or stop the process.
constexpr SignalSet kSignalsOfWriting = SetOf(SIGPIPE, SIGXFSZ, SIGTTOU);

// Returns the mask before.
inline SignalSet SetMask(SignalSet mask) noexcept
{
    SignalSet old = 0;
    SystemCall(SYS_rt_sigprocmask, SIG_SETMASK, ToArgument(&mask), ToArgument(&old), sizeof mask);
    return old;
}

inline SignalSet PendingSignals() noexcept
{
    SignalSet pending = 0;
    SystemCall(SYS_rt_sigpending, ToArgument(&pending), sizeof pending);
    return pending;
}

// Lets all signals wait but those of faults, whose handler comes back to the dump. A handler that ends the process, dumps
// itself or jumps would cut the dump.
class HeldSignals
{
public:
    HeldSignals() noexcept : m_pendingBefore(PendingSignals()), m_hostMask(SetMask(kAllSignals)) { Hold(); }
    ~HeldSignals()
    {
        for (SignalSet raised = PendingSignals() & ~m_pendingBefore & kSignalsOfWriting; raised != 0; raised &= raised - 1)
        {
            const SignalSet taken = raised & -raised;
            const timespec noWait = {};
            SystemCall(SYS_rt_sigtimedwait, ToArgument(&taken), 0, ToArgument(&noWait), sizeof taken);
        }
        Release();
    }
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    void Hold() const noexcept { SetMask(m_hostMask | (kAllSignals & ~kSignalsOfFaults)); }
    void Release() const noexcept { SetMask(m_hostMask); }

private:
    const SignalSet m_pendingBefore;
    const SignalSet m_hostMask;
};

} // namespace Crash

#endif
