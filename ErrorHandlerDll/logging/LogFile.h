// Write: the log file, its name and its descriptor, which takes whole lines or none. The caller holds the logger's section,
// unless a function says otherwise. All of it is async-signal-safe.
#ifndef ERRORHANDLERDLL_LOGGING_LOGFILE_H
#define ERRORHANDLERDLL_LOGGING_LOGFILE_H

#include "ErrorHandlerDll/logging/LogFileName.h"

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

    explicit LogFile(const LogPath& name) : m_names{name, name} {}

    // At any moment a whole name. The characters of an unchanged name stay where they are: hosts hold pointers to them.
    const LogPath& GetName() const { return m_names[m_nameInUse.load(std::memory_order_acquire)]; }
    void SetName(const LogPath& name);

    bool IsOpen() const { return GetDescriptor() >= 0; }

    // Opens it for appending, emptied before or not. When it ends inside a line, as a killed process leaves it, the first
    // write begins with a line feed. A file whose descriptor the host has closed, as daemons do, is not emptied.
    //   returns the position of the first byte that will be written; 0 when it is not open
    std::int64_t Open(bool empties);
    void Close();

    // Writes the pieces from the byte `written` on, which it counts up. They end a line, and several are one line. What
    // fails ends behind the last whole line. A file whose descriptor the host has closed is opened again at once.
    //   waitLeftMs  how long to wait in all for a file that takes nothing (a terminal, a pipe), counted down; null: without
    //               a limit
    //   returns     whether all of it is in the file
    bool WriteAll(Pieces pieces, std::atomic<std::size_t>& written, int* waitLeftMs);

    // After a write that failed or was cut off: counts `written` back to the end of the last whole line, and takes the bytes
    // behind it from the file, or makes the next write begin with a line feed.
    void EndOnWholeLine(Pieces pieces, std::atomic<std::size_t>& written);

    // For a thread that does not hold the section: writes the pieces and touches nothing but the descriptor.
    bool WriteBesideOwner(Pieces pieces, int* waitLeftMs) const;

    // Looks anew at what it ends in, after calls that were cut off. Returns as Open.
    std::int64_t LookAtEnd();

    std::int64_t GetPosition() const;
    bool HoldsBefore(std::int64_t end, std::string_view text) const;

private:
    int GetDescriptor() const { return m_descriptor.load(std::memory_order_relaxed); }
    std::int64_t GetSize() const; // -1 when it is no regular file
    bool EndsInsideLine(bool ifUnknown) const;
    bool TakeBack(Pieces pieces, std::size_t size) const;

    LogPath m_names[2]; // a new one is made beside the one in use
    std::atomic<unsigned int> m_nameInUse{0};
    std::atomic<int> m_descriptor{-1};
    bool m_wasClosedByHost = false;
    bool m_endsInsideLine = false;
};

#endif
