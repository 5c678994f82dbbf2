// The open log file: a descriptor and a buffer of whole lines. The caller holds the logger's critical section.
//
// The buffer is our own and not stdio's for three reasons. A host's fflush(nullptr) on another thread would empty a stream
// that we fill without its lock, and write lines twice. A stream whose write fails throws its buffer away, where this one
// keeps the bytes and writes them with the next flush. And a dump can tell from its state, at any instruction at which the
// code below was interrupted, which bytes are in the file.
#ifndef ERRORHANDLERDLL_LOGGING_LOGFILE_H
#define ERRORHANDLERDLL_LOGGING_LOGFILE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
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

    // Where the next line is to be composed, `length` bytes with its line feed; Commit then takes it. A line that does not
    // fit behind the buffered ones is preceded by a flush, so that every write carries whole lines.
    //   returns null for a line that is too long for the buffer, and while nothing can be written and the buffer is full:
    //           the line is dropped then
    char* Reserve(std::size_t length)
    {
        const std::size_t used = m_used.load(std::memory_order_relaxed);
        return length <= kBufferSize - used ? m_buffer + used : ReserveAfterFlush(length);
    }
    void Commit(std::size_t length)
    {
        m_used.store(m_used.load(std::memory_order_relaxed) + length, std::memory_order_release); // only now it is there
    }

    // Writes a line longer than kBufferSize, after what is buffered.
    void WriteLongLine(std::string_view line);

    // Writes what is buffered. On failure the rest is kept for the next flush. A host that has closed all descriptors, as
    // daemons do, leaves the file not open, and the buffer for when it is opened again.
    void Flush();

    bool HasUnwrittenLines() const
    {
        return m_written.load(std::memory_order_relaxed) < m_used.load(std::memory_order_relaxed);
    }

    // Size in bytes as of the opening plus what was written since, buffered lines included, as a 32-bit count (INT_MAX for
    // what is larger); -1 when no file is open.
    int GetSize() const;

    // ---- For a dump; async-signal-safe, whatever the code above was doing when it was interrupted ----

    // Whether the code that was interrupted is in the middle of a flush.
    bool IsFlushing() const { return m_flushing.load(std::memory_order_acquire); }

    // Writes what is buffered and not yet in the file, once. A flush that was interrupted must not go on afterwards.
    void FlushInEmergency();

    // Writes a line of several parts at once, past the buffer and behind what is in it.
    static constexpr int kMaxParts = 4;
    void WritePastBuffer(const std::string_view (&parts)[kMaxParts]);

    // In a forked child, for which the parent writes them.
    void ForgetBuffer()
    {
        m_used.store(0, std::memory_order_release);
        m_written.store(0, std::memory_order_release);
    }

private:
    static constexpr std::int64_t kUnknownPosition = -1;

    char* ReserveAfterFlush(std::size_t length);
    bool WriteBuffered(std::size_t written, std::size_t used);
    std::size_t WrittenSoFar(std::size_t used) const;
    bool FileHoldsBefore(std::int64_t end, std::string_view text) const;
    bool TakeBack(std::string_view torn) const;
    void NoteFailure(std::ptrdiff_t count);
    void CutTornLine() const;

    int m_descriptor = -1;
    bool m_isLost = false;              // the host closed the descriptor; when the file is opened again, it is not emptied
    std::atomic<std::size_t> m_used{0}; // bytes in the buffer
    std::atomic<std::size_t> m_written{0}; // how many of them are in the file already
    std::atomic<bool> m_flushing{false};   // m_written may be out of date
    std::int64_t m_bufferPosition = 0; // where in the file the first byte of the buffer goes, if nobody else writes to it
    char m_buffer[kBufferSize];
};

#endif
