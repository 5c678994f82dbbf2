// Files by descriptor. The calls go through syscall(), whose wrappers are no cancellation points.
#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <cerrno>
#include <fcntl.h>
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
    return syscall(SYS_writev, descriptor, pieces, count);
}

void CloseFile(int descriptor) noexcept
{
    syscall(SYS_close, descriptor); // after an EINTR the descriptor is closed all the same
}

} // namespace ZelvoWinAPI
