// Files by descriptor. The calls go through syscall(), whose wrappers are no cancellation points.
#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace ZelvoWinAPI
{

namespace
{

constexpr int kFirstFreeDescriptor = STDERR_FILENO + 1;
constexpr int kNewFileMode = 0666;

int AboveStandardDescriptors(int descriptor) noexcept
{
    if (descriptor < 0 || descriptor >= kFirstFreeDescriptor)
    {
        return descriptor;
    }
    const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, kFirstFreeDescriptor);
    const int savedErrno = errno;
    CloseFile(descriptor);
    errno = savedErrno;
    return moved;
}

} // namespace

int OpenFile(const char* path, int flags) noexcept
{
    int descriptor = -1;
    do
    {
        descriptor = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags | O_CLOEXEC, kNewFileMode));
    } while (descriptor < 0 && errno == EINTR);
    return AboveStandardDescriptors(descriptor);
}

bool IsOpenFile(int descriptor, int flags) noexcept
{
    constexpr int kLasting = O_ACCMODE | O_APPEND | O_NONBLOCK;
    const int current = fcntl(descriptor, F_GETFL);
    return current < 0 ? errno != EBADF : ((current ^ flags) & kLasting) == 0;
}

std::ptrdiff_t WriteFile(int descriptor, const void* bytes, std::size_t size) noexcept
{
    return syscall(SYS_write, descriptor, bytes, size);
}

std::ptrdiff_t ReadFile(int descriptor, void* bytes, std::size_t size, std::int64_t position) noexcept
{
    return syscall(SYS_pread64, descriptor, bytes, size, position);
}

std::ptrdiff_t WritePieces(int descriptor, const ::iovec* pieces, int count) noexcept
{
    return count == 1 ? WriteFile(descriptor, pieces->iov_base, pieces->iov_len)
                      : syscall(SYS_writev, descriptor, pieces, count);
}

bool WaitUntilWritable(int descriptor, int* waitLeftMs) noexcept
{
    if (waitLeftMs != nullptr && *waitLeftMs <= 0)
    {
        return false;
    }
    pollfd entry = {descriptor, POLLOUT, 0};
    const std::int64_t start = GetTickCount64();
    const long ready = syscall(SYS_poll, &entry, 1, waitLeftMs == nullptr ? -1 : *waitLeftMs);
    if (waitLeftMs != nullptr)
    {
        // At least 1: other writers may fill it for ever in the moment in which it takes something.
        const std::int64_t waited = std::max<std::int64_t>(GetTickCount64() - start, 1);
        *waitLeftMs = static_cast<int>(std::max<std::int64_t>(*waitLeftMs - waited, 0));
    }
    return ready > 0 || (ready < 0 && errno == EINTR);
}

void CloseFile(int descriptor) noexcept
{
    syscall(SYS_close, descriptor); // after an EINTR the descriptor is closed all the same
}

} // namespace ZelvoWinAPI
