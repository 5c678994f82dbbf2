// Write: the log file behind its descriptor, which takes whole lines or none. The caller holds the logger's section, unless
// a function says otherwise. All of it is async-signal-safe.
#ifndef ERRORHANDLERDLL_LOGGING_LOGFILE_H
#define ERRORHANDLERDLL_LOGGING_LOGFILE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

class LogFile
{
public:
    using Pieces = std::span<const std::string_view>;
    static constexpr std::size_t kMaxPieces = 4;

    bool IsOpen() const { return GetDescriptor() >= 0; }

    // The host has closed the descriptor, as daemons do. Such a file is not open, and is not emptied by the next opening.
    bool WasClosedByHost() const { return m_wasClosedByHost; }

    // Opens `name` for appending, emptied before or not. When it ends inside a line, as a killed process leaves it, the
    // first write begins with a line feed.
    //   returns the position of the first byte that will be written; 0 when it is not open
    std::int64_t Open(const char* name, bool empties);
    void Close();

    // Writes the pieces, whose end ends a line, from the byte `written` on, which it counts up.
    //   waitLeftMs  how long to wait in all for a file that takes nothing (a terminal, a pipe), counted down; null: without
    //               a limit
    //   returns     whether all of it is in the file
    bool WriteAll(Pieces pieces, std::atomic<std::size_t>& written, int* waitLeftMs);

    // After a write that failed: the file ends in the first `size` bytes of the pieces, which are no whole line. Takes them
    // back, or makes the next write begin with a line feed.
    void EndOnWholeLine(Pieces pieces, std::size_t size);

    // For a thread that does not hold the section: writes the pieces and touches nothing but the descriptor.
    bool WriteBesideOwner(Pieces pieces, int* waitLeftMs) const;

    // Looks anew at what it ends in, after calls that were cut off. Returns as Open.
    std::int64_t LookAtEnd();

    std::int64_t GetPosition() const;
    bool HoldsBefore(std::int64_t end, std::string_view text) const;

private:
    int GetDescriptor() const { return m_descriptor.load(std::memory_order_relaxed); }
    bool EndsInsideLine(bool ifUnknown) const;
    bool TakeBack(Pieces pieces, std::size_t size) const;

    std::atomic<int> m_descriptor{-1};
    bool m_wasClosedByHost = false;
    bool m_endsInsideLine = false;
};

#endif
