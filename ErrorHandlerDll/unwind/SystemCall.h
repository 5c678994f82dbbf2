// The kernel called directly, for code that must leave errno alone.
#ifndef ERRORHANDLERDLL_UNWIND_SYSTEMCALL_H
#define ERRORHANDLERDLL_UNWIND_SYSTEMCALL_H

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

} // namespace Unwind

#endif
