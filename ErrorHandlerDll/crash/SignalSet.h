// Sets of signals as the kernel has them: an eighth of the C library's, which a small signal stack has no room for.
#ifndef ERRORHANDLERDLL_CRASH_SIGNALSET_H
#define ERRORHANDLERDLL_CRASH_SIGNALSET_H

#include "ErrorHandlerDll/crash/SystemCall.h"

#include <csignal>
#include <cstdint>

namespace Crash
{

using SignalSet = std::uint64_t;

constexpr SignalSet kAllSignals = ~SignalSet{0};

constexpr SignalSet SetOf(int signal)
{
    return SignalSet{1} << (signal - 1);
}

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

} // namespace Crash

#endif
