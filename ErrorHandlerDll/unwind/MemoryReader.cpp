// The kernel tells readable from unreadable instead of raising a signal, in one of two ways:
//
// 1. process_vm_readv on this process copies the bytes: one call, no state, sees unmapped and PROT_NONE pages and pages
//    past a file's end. The id passed is the thread's: the process id stops working when the main thread has ended before
//    the others.
// 2. Under a filter of system calls, which may kill the process for that: rt_sigprocmask with an invalid operation reads the
//    set before it rejects the operation; then a plain load. Dumps need that call anyway. Another thread that unmaps the
//    page in between makes the load fault, which is why this comes second.
//
// Rejected: msync and mincore do not notice pages without read access; /proc/self/mem reads through PROT_NONE and needs a
// descriptor; pipes need two, and filters; a handler for SIGSEGV belongs to the host.
#include "ErrorHandlerDll/unwind/MemoryReader.h"

#include "ErrorHandlerDll/unwind/SystemCall.h"
#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <cerrno>
#include <cstring>
#include <iterator>
#include <sys/prctl.h>
#include <sys/uio.h>

namespace Unwind
{
namespace
{

constexpr std::size_t kSignalSetSize = 8; // what the kernel expects and reads

enum class CopyResult
{
    COPIED,
    UNREADABLE,
    NOT_AVAILABLE,
};

bool IsFiltered() noexcept
{
    const long mode = SystemCall(SYS_prctl, PR_GET_SECCOMP);
    return mode != 0 && mode != -EINVAL; // kernels without filters do not know the question
}

CopyResult CopyByKernel(const void* address, void* out, std::size_t size) noexcept
{
    if (IsFiltered())
    {
        return CopyResult::NOT_AVAILABLE;
    }
    const iovec local{out, size};
    const iovec remote{const_cast<void*>(address), size};
    const long thread = ZelvoWinAPI::GetCurrentThreadId();
    const long copied = SystemCall(SYS_process_vm_readv, thread, ToArgument(&local), 1, ToArgument(&remote), 1, 0);
    if (copied == static_cast<long>(size))
    {
        return CopyResult::COPIED;
    }
    return copied >= 0 || copied == -EFAULT ? CopyResult::UNREADABLE : CopyResult::NOT_AVAILABLE;
}

bool IsReadable(std::uintptr_t address) noexcept
{
    constexpr long kInvalidOperation = -1;
    const std::uintptr_t set = address & ~(kSignalSetSize - 1); // stays in the page
    return SystemCall(SYS_rt_sigprocmask, kInvalidOperation, static_cast<long>(set), 0, kSignalSetSize) == -EINVAL;
}

// Out of the sanitizers' sight: they would report what the program has freed, and the gaps between its objects.
void CopyBytes(const void* from, void* to, std::size_t size) noexcept
{
    asm volatile("rep movsb" : "+S"(from), "+D"(to), "+c"(size) : : "memory");
}

bool ReadWithinPage(const void* address, void* out, std::size_t size) noexcept
{
    const CopyResult result = CopyByKernel(address, out, size);
    if (result == CopyResult::NOT_AVAILABLE && IsReadable(reinterpret_cast<std::uintptr_t>(address)))
    {
        CopyBytes(address, out, size);
        return true;
    }
    return result == CopyResult::COPIED;
}

// The part of `size` bytes at `address` that lies in its page.
std::size_t PieceSize(std::uintptr_t address, std::size_t size) noexcept
{
    const std::size_t rest = kPageSize - address % kPageSize;
    return size < rest ? size : rest;
}

} // namespace

bool ReadMemory(const void* address, void* out, std::size_t size) noexcept
{
    const auto start = reinterpret_cast<std::uintptr_t>(address);
    for (std::size_t done = 0; done < size;)
    {
        const std::size_t piece = PieceSize(start + done, size - done);
        if (!ReadWithinPage(reinterpret_cast<const void*>(start + done), static_cast<unsigned char*>(out) + done, piece))
        {
            return false;
        }
        done += piece;
    }
    return true;
}

const unsigned char* MemoryReader::Fetch(std::uintptr_t address, std::size_t& available) noexcept
{
    const std::size_t offset = address % kPageSize;
    const std::uintptr_t start = address - offset;
    available = kPageSize - offset;
    if (m_addresses[m_latest] != start)
    {
        m_latest = static_cast<std::size_t>(std::find(m_addresses, std::end(m_addresses), start) - m_addresses);
        if (m_latest == kPageCount)
        {
            m_latest = m_oldest;
            m_oldest = (m_oldest + 1) % kPageCount;
            const bool isRead = ReadMemory(reinterpret_cast<const void*>(start), m_pages[m_latest], kPageSize);
            m_addresses[m_latest] = isRead ? start : kNoPage;
            if (!isRead)
            {
                return nullptr;
            }
        }
    }
    return m_pages[m_latest] + offset;
}

bool MemoryReader::Read(std::uintptr_t address, void* out, std::size_t size) noexcept
{
    auto* to = static_cast<unsigned char*>(out);
    while (size > 0)
    {
        std::size_t piece = 0;
        const unsigned char* bytes = Fetch(address, piece);
        if (bytes == nullptr)
        {
            return false;
        }
        piece = std::min(size, piece);
        std::memcpy(to, bytes, piece);
        to += piece;
        address += piece;
        size -= piece;
    }
    return true;
}

std::size_t MemoryReader::ReadString(std::uintptr_t address, char* out, std::size_t size) noexcept
{
    std::size_t length = 0;
    while (length + 1 < size)
    {
        std::size_t piece = 0;
        const unsigned char* const bytes = Fetch(address + length, piece);
        if (bytes == nullptr)
        {
            break;
        }
        piece = std::min(piece, size - 1 - length);
        const void* const end = std::memchr(bytes, '\0', piece);
        piece = end == nullptr ? piece : static_cast<std::size_t>(static_cast<const unsigned char*>(end) - bytes);
        std::memcpy(out + length, bytes, piece);
        length += piece;
        if (end != nullptr)
        {
            break;
        }
    }
    out[length] = '\0';
    return length;
}

} // namespace Unwind
