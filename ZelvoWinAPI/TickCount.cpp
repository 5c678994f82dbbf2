#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <cerrno>
#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

namespace ZelvoWinAPI
{

// The kernel's own clock: one that a host has preloaded in the place of the C library's may stand still, and is gone at the
// end of the process.
std::int64_t GetTickCount64() noexcept
{
    timespec now = {};
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

void Sleep(int milliseconds) noexcept
{
    const int savedErrno = errno;
    const timespec interval = {milliseconds / 1000, milliseconds % 1000 * 1000000L};
    syscall(SYS_nanosleep, &interval, nullptr);
    errno = savedErrno;
}

} // namespace ZelvoWinAPI
