// The open log file: a descriptor and a buffer of whole lines. The caller holds the logger's critical section.
//
// The buffer is our own and not stdio's for two reasons. A host's fflush(nullptr) on another thread would empty a stream
// that we fill without its lock, and write lines twice; and a stream whose write fails throws its buffer away, where this
// one keeps the bytes and writes them with the next flush.
#ifndef ERRORHANDLERDLL_LOGGING_LOGFILE_H
#define ERRORHANDLERDLL_LOGGING_LOGFILE_H

#include <cstddef>
#include <string_view>

class LogFile
{
public:
    // Large enough for the 101 lines between two flushes as a rule, so that they cost one write.
    static constexpr std::size_t kBufferSize = std::size_t{64} * 1024;

    LogFile() = default;
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    bool IsOpen() const { return m_descriptor >= 0; }

    // Opens `name` in the fopen mode `mode`: "a..." appends, "w..." empties, both create. The file must not be open.
    void Open(const char* name, std::string_view mode);

    // Flushes and closes. What cannot be written now is lost.
    void Close();

    // Takes a line, which ends in its line feed. A line that does not fit behind the buffered ones is preceded by a flush,
    // so that every write carries whole lines. While nothing can be written, the lines that do not fit are dropped.
    void Append(std::string_view line);

    // Writes what is buffered. On failure the rest is kept for the next flush.
    void Flush();

    // Size in bytes, buffered lines included, as a 32-bit count (INT_MAX for what is larger); -1 when no file is open.
    int GetSize() const;

private:
    void WriteThrough(std::string_view line);
    void CutTornLine() const;

    int m_descriptor = -1;
    std::size_t m_used = 0;    // bytes in the buffer
    std::size_t m_written = 0; // how many of them are in the file already, after a write that failed half-way
    char m_buffer[kBufferSize];
};

#endif
