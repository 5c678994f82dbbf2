// The kernel copies the bytes and reports a bad address instead of raising a signal. In order of preference:
//
// 1. process_vm_readv on this process: one call, no state, sees unmapped and PROT_NONE pages and pages past the end of a
// file.
//    The id passed is the thread's: the process id stops working when the main thread has ended before the others.
// 2. Where a sandbox refuses that: a pipe. `write` copies from the address with the same checks, `read` gives the bytes
// back.
//    The two descriptors live for one call only.
// 3. Where no descriptor is left either: rt_sigprocmask with an invalid operation, which reads the set before it rejects the
//    operation and so tells readable from unreadable; then a plain load. Another thread that unmaps the page in between
//    makes the load fault, which is why this comes last.
//
// Rejected: msync and mincore do not notice pages without read access; /proc/self/mem reads through PROT_NONE and needs a
// descriptor; a memfd is refused by more sandboxes than a pipe; a handler for SIGSEGV belongs to the host.
#include "SafeMemory.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/uio.h>

namespace Crash
{
namespace
{

// Access rights change only at page boundaries; larger pages are multiples of this one.
constexpr std::size_t kPageSize = 4096;

constexpr std::size_t kSignalSetSize = 8; // what the kernel expects and reads

constexpr std::uintptr_t kNoLine = 1; // no multiple of the line size

constinit std::atomic<bool> gDirectCopyRefused{false};

// Not libc's syscall(): that one writes errno.
long SystemCall(long number, long a, long b = 0, long c = 0, long d = 0, long e = 0, long f = 0) noexcept
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

long ToArgument(const void* pointer) noexcept
{
    return reinterpret_cast<long>(pointer);
}

long CurrentThread() noexcept
{
    return SystemCall(SYS_gettid, 0);
}

enum class CopyResult
{
    COPIED,
    UNREADABLE,
    NOT_AVAILABLE,
};

CopyResult CopyDirectly(long thread, const void* address, void* out, std::size_t size) noexcept
{
    const iovec local{out, size};
    const iovec remote{const_cast<void*>(address), size};
    const long copied = SystemCall(SYS_process_vm_readv, thread, ToArgument(&local), 1, ToArgument(&remote), 1, 0);
    if (copied == static_cast<long>(size))
        return CopyResult::COPIED;
    if (copied == -EPERM || copied == -ENOSYS)
        gDirectCopyRefused.store(true, std::memory_order_relaxed);
    return copied >= 0 || copied == -EFAULT ? CopyResult::UNREADABLE : CopyResult::NOT_AVAILABLE;
}

CopyResult CopyThroughPipe(const void* address, void* out, std::size_t size) noexcept
{
    int ends[2] = {-1, -1}; // filled by the kernel, out of the analyser's sight
    if (SystemCall(SYS_pipe2, ToArgument(ends), O_CLOEXEC | O_NONBLOCK) != 0)
        return CopyResult::NOT_AVAILABLE;
    CopyResult result = CopyResult::NOT_AVAILABLE;
    const long length = static_cast<long>(size);
    const long written = SystemCall(SYS_write, ends[1], ToArgument(address), length);
    if (written == -EFAULT)
        result = CopyResult::UNREADABLE;
    else if (written == length && SystemCall(SYS_read, ends[0], ToArgument(out), length) == length)
        result = CopyResult::COPIED;
    SystemCall(SYS_close, ends[0]);
    SystemCall(SYS_close, ends[1]);
    return result;
}

bool IsReadable(std::uintptr_t address) noexcept
{
    constexpr long kInvalidOperation = -1;
    const std::uintptr_t set = address & ~(kSignalSetSize - 1); // stays in the page
    return SystemCall(SYS_rt_sigprocmask, kInvalidOperation, static_cast<long>(set), 0, kSignalSetSize) == -EINVAL;
}

// The sanitizers would report a load from memory that the program has freed.
__attribute__((no_sanitize("address", "thread"))) bool CopyAfterProbe(const void* address, void* out,
                                                                      std::size_t size) noexcept
{
    if (!IsReadable(reinterpret_cast<std::uintptr_t>(address)))
        return false;
    const auto* from = static_cast<const volatile unsigned char*>(address);
    auto* to = static_cast<volatile unsigned char*>(out);
    for (std::size_t i = 0; i < size; ++i)
        to[i] = from[i];
    return true;
}

bool ReadWithinPage(long thread, const void* address, void* out, std::size_t size) noexcept
{
    CopyResult result = CopyResult::NOT_AVAILABLE;
    if (!gDirectCopyRefused.load(std::memory_order_relaxed))
        result = CopyDirectly(thread, address, out, size);
    if (result == CopyResult::NOT_AVAILABLE)
        result = CopyThroughPipe(address, out, size);
    if (result == CopyResult::NOT_AVAILABLE)
        return CopyAfterProbe(address, out, size);
    return result == CopyResult::COPIED;
}

// Lines of the one reader that has them. As many as the tables of the common run-time libraries take.
struct Page
{
    std::uintptr_t address;
    unsigned char bytes[kPageSize];
};

constexpr std::size_t kPageCount = 64;
Page gPages[kPageCount];
constinit std::atomic<bool> gPagesAreTaken{false};

// The bytes from `address` to the end of its line, from the cache `lines` or read into it.
template <class AnyLine, std::size_t count>
const unsigned char* FetchLine(long thread, AnyLine (&lines)[count], std::uintptr_t address, std::size_t& available) noexcept
{
    constexpr std::size_t kSize = sizeof lines[0].bytes;
    const std::uintptr_t start = address & ~(kSize - 1);
    const std::size_t offset = address - start;
    AnyLine& line = lines[start / kSize % count];
    available = kSize - offset;
    if (line.address != start)
    {
        line.address = start;
        if (!ReadWithinPage(thread, reinterpret_cast<const void*>(start), line.bytes, kSize))
        {
            line.address = kNoLine;
            return nullptr;
        }
    }
    return line.bytes + offset;
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
    const long thread = CurrentThread();
    const auto start = reinterpret_cast<std::uintptr_t>(address);
    for (std::size_t done = 0; done < size;)
    {
        const std::size_t piece = PieceSize(start + done, size - done);
        if (!ReadWithinPage(thread, reinterpret_cast<const void*>(start + done), static_cast<unsigned char*>(out) + done,
                            piece))
            return false;
        done += piece;
    }
    return true;
}

void ReadMemoryBytes(const void* address, unsigned char* out, bool* readable, std::size_t size) noexcept
{
    const long thread = CurrentThread();
    const auto start = reinterpret_cast<std::uintptr_t>(address);
    for (std::size_t done = 0; done < size;)
    {
        const std::size_t piece = PieceSize(start + done, size - done);
        const bool copied = ReadWithinPage(thread, reinterpret_cast<const void*>(start + done), out + done, piece);
        if (!copied)
            std::memset(out + done, 0, piece);
        std::memset(readable + done, copied ? 1 : 0, piece);
        done += piece;
    }
}

MemoryReader::MemoryReader() noexcept
    : m_thread(CurrentThread()), m_hasPages(!gPagesAreTaken.exchange(true, std::memory_order_acquire))
{
    if (m_hasPages)
    {
        for (Page& page : gPages)
            page.address = kNoLine;
    }
    else
    {
        for (Line& line : m_lines)
            line.address = kNoLine;
    }
}

// A reader that a jump out of a faulty part of a dump has skipped keeps the pages; the others then do without.
MemoryReader::~MemoryReader()
{
    if (m_hasPages)
        gPagesAreTaken.store(false, std::memory_order_release);
}

const unsigned char* MemoryReader::Fetch(std::uintptr_t address, std::size_t& available) noexcept
{
    return m_hasPages ? FetchLine(m_thread, gPages, address, available) : FetchLine(m_thread, m_lines, address, available);
}

bool MemoryReader::Read(std::uintptr_t address, void* out, std::size_t size) noexcept
{
    auto* to = static_cast<unsigned char*>(out);
    while (size > 0)
    {
        std::size_t piece = 0;
        const unsigned char* bytes = Fetch(address, piece);
        if (bytes == nullptr)
            return false;
        piece = size < piece ? size : piece;
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
    while (length + 1 < size && Read(address + length, out[length]) && out[length] != '\0')
        ++length;
    out[length] = '\0';
    return length;
}

} // namespace Crash
