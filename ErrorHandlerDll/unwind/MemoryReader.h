// Reading memory of this process that may not be there: a bad address gives false, never a fault.
//
// For code that runs after a fault, in a signal handler: no heap, no lock, no errno, no descriptor.
#ifndef ERRORHANDLERDLL_UNWIND_MEMORYREADER_H
#define ERRORHANDLERDLL_UNWIND_MEMORYREADER_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Unwind
{

// Access rights change only at page boundaries; larger pages are multiples of this one.
inline constexpr std::size_t kPageSize = 4096;

// Copies `size` bytes from `address` to `out`.
//   returns false when any of them cannot be read; `out` is then undefined
//   signals async-signal-safe
bool ReadMemory(const void* address, void* out, std::size_t size) noexcept;

// Reads many small pieces that lie close together, such as unwind tables and stack words.
//
// Keeps the pages read last, for one system call a page instead of one a piece. They may be out of date soon: use a new one
// for each task. 32 KiB, meant for the dump's stack.
class MemoryReader
{
public:
    MemoryReader() noexcept { std::fill(m_addresses, m_addresses + kPageCount, kNoPage); }

    bool Read(std::uintptr_t address, void* out, std::size_t size) noexcept;

    template <class T>
    bool Read(std::uintptr_t address, T& value) noexcept
    {
        const std::size_t offset = address % kPageSize;
        if (m_addresses[m_latest] == address - offset && offset + sizeof(value) <= kPageSize) [[likely]]
        {
            std::memcpy(&value, m_pages[m_latest] + offset, sizeof(value));
            return true;
        }
        return Read(address, &value, sizeof(value));
    }

    // Copies a NUL-terminated string, cut to `size` - 1 characters; it ends early where it cannot be read on.
    //   returns the number of characters; `out` is always terminated (size > 0)
    std::size_t ReadString(std::uintptr_t address, char* out, std::size_t size) noexcept;

private:
    static constexpr std::size_t kPageCount = 8;
    static constexpr std::uintptr_t kNoPage = 1; // no page starts there

    // The bytes from `address` to the end of its page, `available` of them; null when they cannot be read.
    const unsigned char* Fetch(std::uintptr_t address, std::size_t& available) noexcept;

    std::uintptr_t m_addresses[kPageCount];
    std::size_t m_latest = 0;
    std::size_t m_oldest = 0;
    unsigned char m_pages[kPageCount][kPageSize];
};

} // namespace Unwind

#endif
