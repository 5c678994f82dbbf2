#include "support/Faults.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <utility>

namespace
{

long Fail(int error)
{
    errno = error;
    return -1;
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

} // namespace

extern "C" long __real_syscall(long number, ...);
extern "C" long __wrap_syscall(long number, ...);

// Callers pass as many arguments as their system call has: the others are whatever lies there, and passed on like that.
__attribute__((no_sanitize("address"))) long __wrap_syscall(long number, ...)
{
    long arguments[6];
    va_list list;
    va_start(list, number);
    for (long& argument : arguments)
    {
        argument = va_arg(list, long);
    }
    va_end(list);
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
        const long count = isWhole ? 1 : arguments[2];
        iovec limited[8] = {}; // no heap: signal handlers write, too
        std::copy_n(isWhole ? &whole : reinterpret_cast<const iovec*>(arguments[1]), count, limited);
        long size = 0;
        for (const iovec& piece : limited)
        {
            size += static_cast<long>(piece.iov_len);
        }
        size = Limit(size);
        long left = std::max(size, 0L);
        for (iovec& piece : limited)
        {
            piece.iov_len = std::min(piece.iov_len, static_cast<std::size_t>(left));
            left -= static_cast<long>(piece.iov_len);
        }
        const long result = size < 0 ? -1 : __real_syscall(SYS_writev, arguments[0], limited, count);
        if (Faults::gAfterWrite != nullptr)
        {
            std::exchange(Faults::gAfterWrite, nullptr)();
        }
        return result;
    }
    return __real_syscall(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
}
