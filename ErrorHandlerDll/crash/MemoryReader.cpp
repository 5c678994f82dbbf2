#include "ErrorHandlerDll/crash/MemoryReader.h"

#include "ErrorHandlerDll/crash/PermanentMemory.h"
#include "ErrorHandlerDll/crash/ReaderReserve.h"
#include "ErrorHandlerDll/crash/SafeMemory.h"
#include "ErrorHandlerDll/crash/SystemCall.h"

#include <algorithm>
#include <atomic>
#include <cstring>

namespace Crash
{
namespace
{

constexpr std::size_t kStringPiece = 64; // most paths and symbols end in the first

constexpr long kNoThread = 0;
constinit ReaderReserve gReserve;
constinit std::atomic<bool> gReserveIsTaken{false};
constinit std::atomic<long> gKeepingThread{kNoThread};

} // namespace

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
    size = m_hasReserve ? ReaderReserve::kTableBufferSize : sizeof m_lines;
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
    const std::size_t offset = address % ReaderReserve::kLineSize;
    available = ReaderReserve::kLineSize - offset;
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
        if (!ReadMemory(m_thread, reinterpret_cast<const void*>(start), line, kLineSize))
        {
            return nullptr;
        }
        m_addresses[place] = start;
    }
    return line + offset;
}

bool MemoryReader::ReadPastLines(std::uintptr_t address, void* out, std::size_t size) const noexcept
{
    return ReadMemory(m_thread, reinterpret_cast<const void*>(address), out, size);
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
