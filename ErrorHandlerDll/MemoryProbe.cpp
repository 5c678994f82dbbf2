#include "ErrorHandlerDll/MemoryProbe.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

namespace
{

// Where process_vm_readv is forbidden, as in some sandboxes: a write to a pipe has the kernel read the byte too.
bool ReadThroughPipe(const unsigned char* address, unsigned char& byte) noexcept
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
    {
        return false;
    }
    const bool isRead = write(ends[1], address, 1) == 1 && read(ends[0], &byte, 1) == 1;
    close(ends[0]);
    close(ends[1]);
    return isRead;
}

} // namespace

// msync and mincore would not do: they tell mapped from unmapped, and a mapped page may still not be readable.
unsigned char GetMemoryContents(unsigned char* address, bool& readable) noexcept
{
    unsigned char byte = 0;
    const iovec local = {&byte, 1};
    const iovec remote = {address, 1};
    readable = process_vm_readv(getpid(), &local, 1, &remote, 1, 0) == 1;
    if (!readable && errno != EFAULT)
    {
        readable = ReadThroughPipe(address, byte);
    }
    return readable ? byte : static_cast<unsigned char>(0);
}
