#include "support/Faults.h"

#include "../../ErrorHandlerDll/unwind/SystemCall.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <sys/uio.h>
#include <utility>

// Under these names in C++, so that no declaration with dots is in the way; in the registers the arguments lie alike.
// Callers pass as many as their system call has: the others are whatever lies there, and passed on like that.
extern "C"
{
    long CallSystem(long number, long a, long b, long c, long d, long e, long f) noexcept asm("syscall");
    int ControlFile(int descriptor, int command, long argument) asm("fcntl");
    int LookAtFile(int descriptor, void* status) noexcept asm("fstat");
}

namespace
{

Faults::WriteFault TakeFault(long kind)
{
    if (kind != Faults::gCall || Faults::gCalls.empty())
    {
        return {LONG_MAX, 0};
    }
    const Faults::WriteFault fault = Faults::gCalls.front();
    Faults::gCalls.pop_front();
    return fault;
}

long WriteAtMost(long room, long descriptor, long pieces, long count)
{
    iovec limited[8] = {}; // no heap: signal handlers write, too
    std::copy_n(reinterpret_cast<const iovec*>(pieces), count, limited);
    for (iovec& piece : limited)
    {
        piece.iov_len = std::min(piece.iov_len, static_cast<std::size_t>(room));
        room -= static_cast<long>(piece.iov_len);
    }
    return Unwind::SystemCall(SYS_writev, descriptor, Unwind::ToArgument(limited), count);
}

} // namespace

long CallSystem(long number, long a, long b, long c, long d, long e, long f) noexcept
{
    const bool isSearch = number == SYS_openat && (c & O_DIRECTORY) != 0;
    const bool isWrite = number == SYS_write || number == SYS_writev;
    const Faults::WriteFault fault = TakeFault(isSearch ? Faults::kSearch : isWrite ? SYS_writev : number);
    long result = 0;
    if (fault.m_error == 0 || number == SYS_close) // Linux closes before it reports
    {
        result = number == SYS_writev ? WriteAtMost(fault.m_bytes, a, b, c)
                                      : Unwind::SystemCall(number, a, b, isWrite ? std::min(c, fault.m_bytes) : c, d, e, f);
    }
    if (isWrite && Faults::gAfterWrite != nullptr)
    {
        std::exchange(Faults::gAfterWrite, nullptr)();
    }
    result = fault.m_error != 0 ? -fault.m_error : result;
    errno = result < 0 ? static_cast<int>(-result) : errno;
    return std::max(result, -1L);
}

int ControlFile(int descriptor, int command, long argument)
{
    return static_cast<int>(CallSystem(SYS_fcntl, descriptor, command, argument, 0, 0, 0));
}

int LookAtFile(int descriptor, void* status) noexcept
{
    return static_cast<int>(CallSystem(SYS_fstat, descriptor, Unwind::ToArgument(status), 0, 0, 0, 0));
}
