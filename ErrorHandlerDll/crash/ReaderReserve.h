// The memory of a MemoryReader that may have more than the stack gives.
#ifndef ERRORHANDLERDLL_CRASH_READERRESERVE_H
#define ERRORHANDLERDLL_CRASH_READERRESERVE_H

#include "ErrorHandlerDll/crash/ReadablePages.h"
#include "ErrorHandlerDll/crash/SafeMemory.h"
#include "ErrorHandlerDll/crash/SystemCall.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <sys/uio.h>

namespace Crash
{

// What the one reader that has the reserve reads with. Fetching 4 KiB costs the kernel hardly more than 128 bytes (3.3
// against 2.7 microseconds); touching a page of the reserve for the first time costs more than either, so the lines fill it
// in order.
class ReaderReserve
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
    static constexpr std::uintptr_t kNoLine = 1; // no multiple of the line size

    // Takes the place of the oldest line once all are in use.
    bool ReadNext(long thread, std::uintptr_t start) noexcept
    {
        const std::size_t place = m_next;
        m_addresses[place] = kNoLine;
        if (!ReadMemory(thread, reinterpret_cast<const void*>(start), m_lines[place], kLineSize))
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

} // namespace Crash

#endif
