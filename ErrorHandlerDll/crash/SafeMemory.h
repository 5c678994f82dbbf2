// Reading memory of this process that may not be there: a bad address gives false, never a fault.
//
// For code that runs after a fault, in a signal handler: no heap, no lock, no errno, and no descriptor that stays open.
#ifndef ERRORHANDLERDLL_CRASH_SAFEMEMORY_H
#define ERRORHANDLERDLL_CRASH_SAFEMEMORY_H

#include <cstddef>
#include <cstdint>

namespace Crash
{

// Copies `size` bytes from `address` to `out`.
//   returns false when any of them cannot be read; `out` is then undefined
//   signals async-signal-safe
bool ReadMemory(const void* address, void* out, std::size_t size) noexcept;

// Copies what can be read of the `size` bytes at `address`, and says for each byte whether it could be.
//   out       unreadable bytes become 0
//   readable  `size` flags
//   signals   async-signal-safe
void ReadMemoryBytes(const void* address, unsigned char* out, bool* readable, std::size_t size) noexcept;

// Reads small pieces that lie close together, such as unwind tables and stack words, at one system call per line instead of
// one per piece. What it has read may be out of date: use a new one for each task. 1.1 KiB, meant to live on the stack.
// One reader at a time has whole pages as its lines, in memory reserved for that: a symbol table is read ten times faster.
class MemoryReader
{
public:
    MemoryReader() noexcept;
    ~MemoryReader();
    MemoryReader(const MemoryReader&) = delete;
    MemoryReader& operator=(const MemoryReader&) = delete;

    bool Read(std::uintptr_t address, void* out, std::size_t size) noexcept;

    template <class T>
    bool Read(std::uintptr_t address, T& value) noexcept
    {
        return Read(address, &value, sizeof(value));
    }

    // Copies a NUL-terminated string, cut to `size` - 1 characters; it ends early where it cannot be read on.
    //   returns the number of characters; `out` is always terminated (size > 0)
    std::size_t ReadString(std::uintptr_t address, char* out, std::size_t size) noexcept;

private:
    static constexpr std::size_t kLineSize = 128; // divides the page size, so a line is readable as a whole or not at all
    static constexpr std::size_t kLineCount = 8;  // a walk uses two lines of stack and two or three of tables at a time

    // The bytes from `address` to the end of its line, `available` of them; null when they cannot be read.
    const unsigned char* Fetch(std::uintptr_t address, std::size_t& available) noexcept;

    struct Line
    {
        std::uintptr_t address;
        unsigned char bytes[kLineSize];
    };

    long m_thread; // asked once: the kernel's calls are what reading costs
    bool m_hasPages;
    Line m_lines[kLineCount];
};

} // namespace Crash

#endif
