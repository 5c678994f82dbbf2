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
    int CutFile(int descriptor, long size) noexcept asm("ftruncate");
}

namespace
{

long Return(long result)
{
    if (result >= 0)
    {
        return result;
    }
    errno = static_cast<int>(-result);
    return -1;
}

template <class Fault>
Fault TakeFirst(std::deque<Fault>& faults, Fault none)
{
    if (!faults.empty())
    {
        none = faults.front();
        faults.pop_front();
    }
    return none;
}

Faults::WriteFault TakeFault(long kind)
{
    constexpr Faults::WriteFault kNone = {LONG_MAX, 0};
    if (kind == Faults::gCall)
    {
        return TakeFirst(Faults::gCalls, kNone);
    }
    if (kind == SYS_openat)
    {
        return {0, TakeFirst(Faults::gOpenErrors, 0)};
    }
    return kind == SYS_writev ? TakeFirst(Faults::gWrites, kNone) : kNone;
}

// Returns what the system call gives: bytes, or an error below 0.
long Write(long descriptor, const iovec* pieces, long count, const Faults::WriteFault& fault)
{
    iovec limited[8] = {}; // no heap: signal handlers write, too
    std::copy_n(pieces, count, limited);
    long room = std::min(fault.m_bytes, Faults::gDiskSpace >= 0 ? Faults::gDiskSpace : LONG_MAX);
    const int error = fault.m_error == 0 && room == 0 ? ENOSPC : fault.m_error;
    for (iovec& piece : limited)
    {
        piece.iov_len = std::min(piece.iov_len, static_cast<std::size_t>(room));
        room -= static_cast<long>(piece.iov_len);
    }
    const long result = error != 0 ? -error : Unwind::SystemCall(SYS_writev, descriptor, Unwind::ToArgument(limited), count);
    if (Faults::gDiskSpace > 0)
    {
        Faults::gDiskSpace -= std::max(result, 0L);
    }
    if (Faults::gAfterWrite != nullptr)
    {
        std::exchange(Faults::gAfterWrite, nullptr)();
    }
    return result;
}

} // namespace

long CallSystem(long number, long a, long b, long c, long d, long e, long f) noexcept
{
    const bool isSearch = number == SYS_openat && (c & O_DIRECTORY) != 0;
    const long kind = isSearch ? Faults::kSearch : number == SYS_write ? SYS_writev : number;
    const Faults::WriteFault fault = TakeFault(kind);
    if (isSearch) // no write by threads that only log
    {
        ++Faults::gSearches;
    }
    if (kind == SYS_writev)
    {
        const iovec whole = {reinterpret_cast<void*>(b), static_cast<std::size_t>(c)};
        const bool isWhole = number == SYS_write;
        return Return(Write(a, isWhole ? &whole : reinterpret_cast<const iovec*>(b), isWhole ? 1 : c, fault));
    }
    // Linux closes before it reports.
    const bool isDone = fault.m_error == 0 || number == SYS_close;
    const long result = isDone ? Unwind::SystemCall(number, a, b, c, d, e, f) : 0;
    return Return(fault.m_error != 0 ? -fault.m_error : result);
}

int ControlFile(int descriptor, int command, long argument)
{
    return static_cast<int>(CallSystem(SYS_fcntl, descriptor, command, argument, 0, 0, 0));
}

int LookAtFile(int descriptor, void* status) noexcept
{
    return static_cast<int>(CallSystem(SYS_fstat, descriptor, Unwind::ToArgument(status), 0, 0, 0, 0));
}

int CutFile(int descriptor, long size) noexcept
{
    return static_cast<int>(CallSystem(SYS_ftruncate, descriptor, size, 0, 0, 0, 0));
}
