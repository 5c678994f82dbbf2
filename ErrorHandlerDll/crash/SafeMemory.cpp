// What cannot go away is read in place (PermanentMemory.h), after the kernel has been asked whether it can be read. Of all
// else the kernel copies the bytes and reports a bad address instead of raising a signal. In order of preference:
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
#include "ErrorHandlerDll/crash/SafeMemory.h"

#include "ErrorHandlerDll/crash/PermanentMemory.h"

#include <algorithm>
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

constexpr std::size_t kStringPiece = 64; // most paths and symbols end in the first

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
    {
        return CopyResult::COPIED;
    }
    if (copied == -EPERM || copied == -ENOSYS)
    {
        gDirectCopyRefused.store(true, std::memory_order_relaxed);
    }
    return copied >= 0 || copied == -EFAULT ? CopyResult::UNREADABLE : CopyResult::NOT_AVAILABLE;
}

CopyResult CopyThroughPipe(const void* address, void* out, std::size_t size) noexcept
{
    int ends[2] = {-1, -1}; // filled by the kernel, out of the analyser's sight
    if (SystemCall(SYS_pipe2, ToArgument(ends), O_CLOEXEC | O_NONBLOCK) != 0)
    {
        return CopyResult::NOT_AVAILABLE;
    }
    CopyResult result = CopyResult::NOT_AVAILABLE;
    const long length = static_cast<long>(size);
    const long written = SystemCall(SYS_write, ends[1], ToArgument(address), length);
    if (written == -EFAULT)
    {
        result = CopyResult::UNREADABLE;
    }
    else if (written == length && SystemCall(SYS_read, ends[0], ToArgument(out), length) == length)
    {
        result = CopyResult::COPIED;
    }
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

// Out of the sanitizers' sight: they would report what the program has freed, and the gaps between its objects.
__attribute__((no_sanitize("address", "thread"))) void CopyBytes(const void* address, void* out, std::size_t size) noexcept
{
    using Word [[gnu::may_alias, gnu::aligned(1)]] = std::uint64_t;
    const auto* from = static_cast<const volatile unsigned char*>(address); // volatile: not to become a call of memcpy
    auto* to = static_cast<volatile unsigned char*>(out);
    for (; size >= sizeof(Word); size -= sizeof(Word), from += sizeof(Word), to += sizeof(Word))
    {
        *reinterpret_cast<volatile Word*>(to) = *reinterpret_cast<const volatile Word*>(from);
    }
    for (; size > 0; --size)
    {
        *to++ = *from++;
    }
}

bool CopyAfterProbe(const void* address, void* out, std::size_t size) noexcept
{
    if (!IsReadable(reinterpret_cast<std::uintptr_t>(address)))
    {
        return false;
    }
    CopyBytes(address, out, size);
    return true;
}

bool ReadWithinPage(long thread, const void* address, void* out, std::size_t size) noexcept
{
    if (IsPermanentMemory(reinterpret_cast<std::uintptr_t>(address), size) && CopyAfterProbe(address, out, size))
    {
        return true;
    }
    CopyResult result = CopyResult::NOT_AVAILABLE;
    if (!gDirectCopyRefused.load(std::memory_order_relaxed))
    {
        result = CopyDirectly(thread, address, out, size);
    }
    if (result == CopyResult::NOT_AVAILABLE)
    {
        result = CopyThroughPipe(address, out, size);
    }
    if (result == CopyResult::NOT_AVAILABLE)
    {
        return CopyAfterProbe(address, out, size);
    }
    return result == CopyResult::COPIED;
}

// What the one reader that has the reserve reads with. Fetching 4 KiB costs the kernel hardly more than 128 bytes (3.3
// against 2.7 microseconds); touching a page of the reserve for the first time costs more than either, so the lines fill it
// in order.
class Reserve
{
public:
    static constexpr std::size_t kLineSize = 4096;
    static constexpr std::size_t kTableBufferSize = 8192;

    void Forget() noexcept
    {
        m_count = 0;
        m_next = 0;
        m_latest = 0;
        m_readablePages.Forget();
    }

    ReadablePages& Readable() noexcept { return m_readablePages; }

    // Reads all lines again, up to the first that cannot be read, with one call: one by one they cost three times as much.
    void Refresh(long thread) noexcept
    {
        iovec local[kLineCount];
        iovec remote[kLineCount];
        for (std::size_t i = 0; i < m_count; ++i)
        {
            local[i] = {m_lines[i], kLineSize};
            remote[i] = {reinterpret_cast<void*>(m_addresses[i]), kLineSize};
        }
        const auto count = static_cast<long>(m_count);
        const long copied = SystemCall(SYS_process_vm_readv, thread, ToArgument(local), count, ToArgument(remote), count, 0);
        Forget();
        m_count = copied > 0 ? static_cast<std::size_t>(copied) / kLineSize : 0;
        m_next = m_count % kLineCount;
    }

    // The line at `start`, from the cache or read into it; null when it cannot be read.
    const unsigned char* Fetch(long thread, std::uintptr_t start) noexcept
    {
        if (m_latest < m_count && m_addresses[m_latest] == start)
        {
            return m_lines[m_latest];
        }
        std::uintptr_t* const end = m_addresses + m_count;
        std::uintptr_t* const found = std::find(m_addresses, end, start);
        if (found != end)
        {
            m_latest = static_cast<std::size_t>(found - m_addresses);
        }
        else if (!ReadNext(thread, start))
        {
            return nullptr;
        }
        return m_lines[m_latest];
    }

    unsigned char* TableBuffer() noexcept { return m_tableBuffer; }

private:
    static constexpr std::size_t kLineCount = 64;

    // Takes the place of the oldest line once all are in use.
    bool ReadNext(long thread, std::uintptr_t start) noexcept
    {
        const std::size_t place = m_next;
        m_addresses[place] = kNoLine;
        if (!ReadWithinPage(thread, reinterpret_cast<const void*>(start), m_lines[place], kLineSize))
        {
            return false;
        }
        m_addresses[place] = start;
        m_latest = place;
        m_next = (place + 1) % kLineCount;
        m_count = std::max(m_count, place + 1);
        return true;
    }

    std::size_t m_count = 0;
    std::size_t m_next = 0;
    std::size_t m_latest = 0;
    ReadablePages m_readablePages;
    std::uintptr_t m_addresses[kLineCount] = {};
    alignas(kPageSize) unsigned char m_tableBuffer[kTableBufferSize] = {};
    alignas(kPageSize) unsigned char m_lines[kLineCount][kLineSize] = {};
};

constexpr long kNoThread = 0;
constinit Reserve gReserve;
constinit std::atomic<bool> gReserveIsTaken{false};
constinit std::atomic<long> gKeepingThread{kNoThread};

// The part of `size` bytes at `address` that lies in its page.
std::size_t PieceSize(std::uintptr_t address, std::size_t size) noexcept
{
    const std::size_t rest = kPageSize - address % kPageSize;
    return size < rest ? size : rest;
}

bool ReadRange(long thread, const void* address, void* out, std::size_t size) noexcept
{
    const auto start = reinterpret_cast<std::uintptr_t>(address);
    if (!gDirectCopyRefused.load(std::memory_order_relaxed) && !IsPermanentMemory(start, size) &&
        CopyDirectly(thread, address, out, size) == CopyResult::COPIED)
    {
        return true;
    }
    for (std::size_t done = 0; done < size;)
    {
        const std::size_t piece = PieceSize(start + done, size - done);
        if (!ReadWithinPage(thread, reinterpret_cast<const void*>(start + done), static_cast<unsigned char*>(out) + done,
                            piece))
        {
            return false;
        }
        done += piece;
    }
    return true;
}

} // namespace

bool ReadMemory(const void* address, void* out, std::size_t size) noexcept
{
    return ReadRange(CurrentThread(), address, out, size);
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
        {
            std::memset(out + done, 0, piece);
        }
        std::memset(readable + done, copied ? 1 : 0, piece);
        done += piece;
    }
}

MemoryReader::KeepingScope::KeepingScope() noexcept
{
    gKeepingThread.store(CurrentThread(), std::memory_order_relaxed);
    MemoryReader().Refresh();
}

MemoryReader::KeepingScope::~KeepingScope()
{
    gKeepingThread.store(kNoThread, std::memory_order_relaxed);
}

MemoryReader::MemoryReader() noexcept
    : m_thread(CurrentThread()), m_hasReserve(!gReserveIsTaken.exchange(true, std::memory_order_acquire))
{
    if (m_hasReserve && gKeepingThread.load(std::memory_order_relaxed) != m_thread)
    {
        gReserve.Forget();
    }
    ForgetLines();
}

// A reader that a jump out of a faulty part of a dump has skipped keeps the reserve; the others then do without.
MemoryReader::~MemoryReader()
{
    if (m_hasReserve)
    {
        gReserveIsTaken.store(false, std::memory_order_release);
    }
}

void MemoryReader::Refresh() noexcept
{
    if (m_hasReserve)
    {
        gReserve.Refresh(m_thread);
    }
    m_readablePages.Forget();
    ForgetLines();
}

void MemoryReader::ForgetLines() noexcept
{
    for (std::uintptr_t& address : m_addresses)
    {
        address = kNoLine;
    }
}

// Without the reserve the lines' own memory must do.
unsigned char* MemoryReader::TakeTableBuffer(std::size_t& size) noexcept
{
    ForgetLines();
    size = m_hasReserve ? Reserve::kTableBufferSize : sizeof m_lines;
    return m_hasReserve ? gReserve.TableBuffer() : m_lines;
}

const unsigned char* MemoryReader::Fetch(std::uintptr_t address, std::size_t& available) noexcept
{
    if (IsPermanentMemory(address, 1))
    {
        if (const unsigned char* const bytes = FetchInPlace(address, available))
        {
            return bytes;
        }
    }
    return m_hasReserve ? FetchFromReserve(address, available) : FetchLine(address, available);
}

// Needs no copy: a look at each page is a tenth of what reading it costs.
const unsigned char* MemoryReader::FetchInPlace(std::uintptr_t address, std::size_t& available) noexcept
{
    ReadablePages& pages = m_hasReserve ? gReserve.Readable() : m_readablePages;
    const std::uintptr_t page = address / kPageSize;
    if (!pages.Contain(page))
    {
        if (!IsReadable(address))
        {
            return nullptr;
        }
        pages.Add(page);
    }
    available = kPageSize - address % kPageSize;
    return reinterpret_cast<const unsigned char*>(address);
}

const unsigned char* MemoryReader::FetchFromReserve(std::uintptr_t address, std::size_t& available) noexcept
{
    const std::size_t offset = address % Reserve::kLineSize;
    available = Reserve::kLineSize - offset;
    const unsigned char* const line = gReserve.Fetch(m_thread, address - offset);
    return line == nullptr ? nullptr : line + offset;
}

const unsigned char* MemoryReader::FetchLine(std::uintptr_t address, std::size_t& available) noexcept
{
    const std::size_t offset = address % kLineSize;
    const std::size_t place = address / kLineSize % kLineCount;
    const std::uintptr_t start = address - offset;
    unsigned char* const line = m_lines + place * kLineSize;
    available = kLineSize - offset;
    if (m_addresses[place] != start)
    {
        m_addresses[place] = kNoLine;
        if (!ReadWithinPage(m_thread, reinterpret_cast<const void*>(start), line, kLineSize))
        {
            return nullptr;
        }
        m_addresses[place] = start;
    }
    return line + offset;
}

bool MemoryReader::ReadPastLines(std::uintptr_t address, void* out, std::size_t size) const noexcept
{
    return ReadRange(m_thread, reinterpret_cast<const void*>(address), out, size);
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
        piece = size < piece ? size : piece;
        CopyBytes(bytes, to, piece);
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
        piece = std::min({piece, size - 1 - length, kStringPiece});
        CopyBytes(bytes, out + length, piece);
        if (const void* const end = std::memchr(out + length, '\0', piece))
        {
            return static_cast<std::size_t>(static_cast<const char*>(end) - out);
        }
        length += piece;
    }
    out[length] = '\0';
    return length;
}

} // namespace Crash
