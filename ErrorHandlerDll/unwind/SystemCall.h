// The kernel called directly, for code that must leave errno alone.
#ifndef ERRORHANDLERDLL_UNWIND_SYSTEMCALL_H
#define ERRORHANDLERDLL_UNWIND_SYSTEMCALL_H

#include <csignal>
#include <cstdint>
#include <sys/syscall.h>

namespace Unwind
{

// Not libc's syscall(): that one writes errno.
inline long SystemCall(long number, long a, long b = 0, long c = 0, long d = 0, long e = 0, long f = 0) noexcept
{
    long result;
    asm volatile("movq %[d], %%r10\n\t"
                 "movq %[e], %%r8\n\t"
                 "movq %[f], %%r9\n\t"
                 "syscall"
                 : "=a"(result)
                 : "a"(number), "D"(a), "S"(b), "d"(c), [d] "g"(d), [e] "g"(e), [f] "g"(f)
                 : "r8", "r9", "r10", "rcx", "r11", "memory");
    return result;
}

inline long ToArgument(const void* pointer) noexcept
{
    return reinterpret_cast<long>(pointer);
}

// ---- Sets of signals as the kernel has them: an eighth of the C library's, which a small signal stack has no room for ----

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

} // namespace Unwind

#endif
