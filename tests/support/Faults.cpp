#include "support/Faults.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>
#include <utility>

namespace
{

long Fail(int error)
{
    errno = error;
    return -1;
}

// What a sanitizer calls at each read would change the registers that are set already.
__attribute__((no_sanitize("thread"), no_sanitize("address"), noinline)) long Call(long number, const long (&arguments)[6])
{
    register long fourth asm("r10") = arguments[3];
    register long fifth asm("r8") = arguments[4];
    register long sixth asm("r9") = arguments[5];
    long result = number;
    asm volatile("syscall"
                 : "+a"(result)
                 : "D"(arguments[0]), "S"(arguments[1]), "d"(arguments[2]), "r"(fourth), "r"(fifth), "r"(sixth)
                 : "rcx", "r11", "memory");
    return result < 0 ? Fail(static_cast<int>(-result)) : result;
}

// What the plan has for this call: 0 or an error, or kShortWrite.
int PlannedError(long number)
{
    if (number != Faults::gPlan.m_number)
    {
        return 0;
    }
    const int at = Faults::gPlannedCalls++ - Faults::gPlan.m_first;
    if (at < 0 || at >= Faults::gPlan.m_count)
    {
        return 0;
    }
    if (Faults::gPlan.m_error == Faults::kHalfThenFull)
    {
        return at == 0 ? Faults::kShortWrite : ENOSPC;
    }
    return Faults::gPlan.m_error;
}

// Bytes that may be written now, or -1 with errno set.
long Limit(long size)
{
    if (!Faults::gWrites.empty())
    {
        const Faults::WriteFault fault = Faults::gWrites.front();
        Faults::gWrites.pop_front();
        if (fault.m_error != 0)
        {
            return Fail(fault.m_error);
        }
        size = std::min(size, fault.m_bytes);
    }
    if (Faults::gDiskSpace >= 0)
    {
        size = std::min(size, Faults::gDiskSpace);
        Faults::gDiskSpace -= size;
        return size > 0 ? size : Fail(ENOSPC);
    }
    return size;
}

long WritePieces(long descriptor, const iovec* pieces, long count, bool onlyHalf)
{
    iovec limited[8] = {}; // no heap: signal handlers write, too
    std::copy_n(pieces, count, limited);
    long size = 0;
    for (const iovec& piece : limited)
    {
        size += static_cast<long>(piece.iov_len);
    }
    size = Limit(onlyHalf ? (size + 1) / 2 : size);
    long left = std::max(size, 0L);
    for (iovec& piece : limited)
    {
        piece.iov_len = std::min(piece.iov_len, static_cast<std::size_t>(left));
        left -= static_cast<long>(piece.iov_len);
    }
    const long result = size < 0 ? -1 : Call(SYS_writev, {descriptor, reinterpret_cast<long>(limited), count, 0, 0, 0});
    if (Faults::gAfterWrite != nullptr)
    {
        std::exchange(Faults::gAfterWrite, nullptr)();
    }
    return result;
}

} // namespace

extern "C"
{
    // Callers pass as many arguments as their system call has: the others are whatever lies there, and passed on like that.
    __attribute__((no_sanitize("address"))) long syscall(long number, ...) noexcept
    {
        long arguments[6];
        va_list list;
        va_start(list, number);
        for (long& argument : arguments)
        {
            argument = va_arg(list, long);
        }
        va_end(list);
        const int planned = PlannedError(number == SYS_write ? SYS_writev : number); // one way to write for the plans
        if (planned > 0)
        {
            if (number == SYS_close)
            {
                Call(number, arguments); // Linux closes before it reports
            }
            return Fail(planned);
        }
        if (number == SYS_openat && (arguments[2] & O_DIRECTORY) != 0)
        {
            ++Faults::gSearches;
        }
        else if (number == SYS_openat && !Faults::gOpenErrors.empty())
        {
            const int error = Faults::gOpenErrors.front();
            Faults::gOpenErrors.pop_front();
            return Fail(error);
        }
        else if (number == SYS_writev || number == SYS_write)
        {
            const iovec whole = {reinterpret_cast<void*>(arguments[1]), static_cast<std::size_t>(arguments[2])};
            const bool isWhole = number == SYS_write;
            const iovec* const pieces = isWhole ? &whole : reinterpret_cast<const iovec*>(arguments[1]);
            return WritePieces(arguments[0], pieces, isWhole ? 1 : arguments[2], planned != 0);
        }
        return Call(number, arguments);
    }

    int fcntl(int descriptor, int command, ...)
    {
        va_list list;
        va_start(list, command);
        const long argument = va_arg(list, long);
        va_end(list);
        return static_cast<int>(syscall(SYS_fcntl, descriptor, command, argument));
    }
    int fstat(int descriptor, struct stat* status) noexcept
    {
        return static_cast<int>(syscall(SYS_fstat, descriptor, status));
    }
    int ftruncate(int descriptor, off_t size) noexcept
    {
        return static_cast<int>(syscall(SYS_ftruncate, descriptor, size));
    }
}
