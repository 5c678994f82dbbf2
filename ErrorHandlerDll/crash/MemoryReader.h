// Reading much of this process's memory, piece by piece. For code that runs after a fault, like SafeMemory.h, with which it
// reads.
#ifndef ERRORHANDLERDLL_CRASH_MEMORYREADER_H
#define ERRORHANDLERDLL_CRASH_MEMORYREADER_H

#include "ErrorHandlerDll/crash/ReadablePages.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Crash
{

// Reads small pieces that lie close together, such as unwind tables and stack words, at one system call per line instead of
// one per piece. What it has read may be out of date: use a new one for each task. 1.4 KiB, meant to live on the stack.
//
// One reader at a time has the reserve: more and longer lines, and a buffer for tables, in static memory.
class MemoryReader
{
public:
    // Lets the reserve keep its lines from one reader of this thread to the next: the parts of a dump read the same places.
    // One thread at a time.
    class KeepingScope
    {
    public:
        KeepingScope() noexcept;
        ~KeepingScope();
        KeepingScope(const KeepingScope&) = delete;
        KeepingScope& operator=(const KeepingScope&) = delete;
    };

    MemoryReader() noexcept;
    ~MemoryReader();
    MemoryReader(const MemoryReader&) = delete;
    MemoryReader& operator=(const MemoryReader&) = delete;

    bool HasReserve() const noexcept { return m_hasReserve; }

    // Forgets what it has read, or reads it again.
    void Refresh() noexcept;

    bool Read(std::uintptr_t address, void* out, std::size_t size) noexcept;

    template <class T>
    bool Read(std::uintptr_t address, T& value) noexcept
    {
        return Read(address, &value, sizeof(value));
    }

    // Calls look(entry) for each of the `count` entries of a table, past the lines and some kilobytes at a time.
    //   returns false when the table cannot be read to its end
    template <class Entry, class Look>
    bool ReadTable(std::uintptr_t address, std::size_t count, const Look& look) noexcept
    {
        std::size_t size = 0;
        unsigned char* const buffer = TakeTableBuffer(size);
        while (count > 0)
        {
            const std::size_t piece = count < size / sizeof(Entry) ? count : size / sizeof(Entry);
            if (!ReadPastLines(address, buffer, piece * sizeof(Entry)))
            {
                return false;
            }
            for (std::size_t i = 0; i < piece; ++i)
            {
                Entry entry;
                std::memcpy(&entry, buffer + i * sizeof(Entry), sizeof(Entry));
                look(entry);
            }
            address += piece * sizeof(Entry);
            count -= piece;
        }
        return true;
    }

    // Copies a NUL-terminated string, cut to `size` - 1 characters; it ends early where it cannot be read on.
    //   returns the number of characters; `out` is always terminated (size > 0)
    std::size_t ReadString(std::uintptr_t address, char* out, std::size_t size) noexcept;

private:
    static constexpr std::size_t kLineSize = 128; // divides the page size, so a line is readable as a whole or not at all
    static constexpr std::size_t kLineCount = 8;  // a walk uses two lines of stack and two or three of tables at a time
    static constexpr std::uintptr_t kNoLine = 1;  // no multiple of the line size

    // The bytes from `address` to the end of its line, `available` of them; null when they cannot be read.
    const unsigned char* Fetch(std::uintptr_t address, std::size_t& available) noexcept;
    const unsigned char* FetchInPlace(std::uintptr_t address, std::size_t& available) noexcept;
    const unsigned char* FetchFromReserve(std::uintptr_t address, std::size_t& available) noexcept;
    const unsigned char* FetchLine(std::uintptr_t address, std::size_t& available) noexcept;
    bool ReadPastLines(std::uintptr_t address, void* out, std::size_t size) const noexcept;
    unsigned char* TakeTableBuffer(std::size_t& size) noexcept;
    void ForgetLines() noexcept;

    long m_thread; // asked once: the kernel's calls are what reading costs
    bool m_hasReserve;
    ReadablePages m_readablePages;
    std::uintptr_t m_addresses[kLineCount];
    unsigned char m_lines[kLineCount * kLineSize];
};

} // namespace Crash

#endif
