// Buffer: where the lines go, a name, its open file, and a buffer of whole lines before it. What the strategies work on. The
// caller holds the logger's section.
//
// The buffer is our own and not stdio's for three reasons. A host's fflush(nullptr) on another thread would empty a stream
// that we fill without its lock, and write lines twice. A stream whose write fails throws its buffer away, where this one
// keeps the bytes and writes them with the next flush. And a dump can tell from its state, at any instruction at which the
// code below was interrupted, which bytes are in the file.
//
// The lines in the buffer are the owner's to write as long as it holds the section, but for a thread that has waited for it
// in vain, as for one that is stopped for ever: that one may claim them. Both settle it by one exchange.
#ifndef ERRORHANDLERDLL_LOGGING_LOGOUTPUT_H
#define ERRORHANDLERDLL_LOGGING_LOGOUTPUT_H

#include "ErrorHandlerDll/logging/LogFile.h"

class LogOutput
{
public:
    // Large enough for the 101 lines between two flushes as a rule, so that they cost one write.
    static constexpr std::size_t kBufferSize = std::size_t{64} * 1024;
    static constexpr std::size_t kExcess = 32;

    explicit LogOutput(const LogPath& name) : m_file(name) {}

    const LogPath& GetName() const { return m_file.GetName(); }
    void SetName(const LogPath& name) { m_file.SetName(name); }

    bool IsOpen() const { return m_file.IsOpen(); }
    void Open(bool empties);

    // Flushes and closes. What cannot be written now is lost. Waits as LogFile::WriteAll, by default as WaitLimit.
    void Close(int* waitLeftMs = WaitLimit());

    // Writes what is buffered. On failure the rest is kept for the next flush.
    //   returns whether nothing is left
    bool Flush(int* waitLeftMs = WaitLimit());

    // Size in bytes as of the opening plus what was written since, buffered lines included.
    std::int64_t GetSize() const { return m_bufferPosition + static_cast<std::int64_t>(GetUsed()); }

    // Length in bytes of the line about to be written, its line feed included.
    std::size_t GetLineLength() const { return m_lineLength; }
    void SetLineLength(std::size_t length) { m_lineLength = length; }

    // Where the next line is to be composed, `length` bytes with its line feed; Commit then takes it. What stands in the
    // kExcess bytes behind it may be overwritten. A line that does not fit behind the buffered ones is preceded by a flush,
    // so that every write carries whole lines.
    //   returns null for a line that is too long for the buffer, and while nothing can be written and the buffer is full:
    //           the line is dropped then
    char* Reserve(std::size_t length)
    {
        return length <= kBufferSize - GetUsed() ? m_buffer + GetUsed() : ReserveAfterFlush(length);
    }
    void Commit(std::size_t length) { m_used.store(GetUsed() + length, std::memory_order_release); } // only now it is there

    // Writes a line behind what is in the buffer already, which has been flushed.
    bool WritePastBuffer(LogFile::Pieces pieces, int* waitLeftMs = WaitLimit());

    bool HasUnwrittenLines() const { return m_written.load(std::memory_order_relaxed) < GetUsed(); }

    // How long a write may wait for a file that takes nothing: without limit, but in an emergency.
    static int* WaitLimit();

    // ---- For a dump, a handler and a fork; async-signal-safe, whatever the interrupted code above was doing ----

    // Whether the section's owner is in the middle of a flush.
    bool IsFlushing() const { return ClaimedBytes(m_claim.load(std::memory_order_acquire)) == kByFlush; }

    // As Flush, but the buffer stays where it is: the interrupted code may be composing a line behind it.
    bool WriteBuffered(int* waitLeftMs = WaitLimit());

    // For a thread that does not hold the section: claims and writes the lines of its owner, unless that is writing them.
    void WriteLinesOfOwner(int& waitLeftMs);
    bool WriteBesideOwner(LogFile::Pieces pieces) const { return m_file.WriteBesideOwner(pieces, WaitLimit()); }

    // Counts as written what is not: it is the parent's to write, or lost.
    void ForgetBuffer();

    // In a forked child: who was claiming lines is no thread of it.
    void ForgetOtherThreads() { m_copyOwner.store(0); }

    // Makes the state whole again after a call that was cut off.
    void ForgetInterruptedCall();

private:
    // How far the lines are claimed: the count of buffers that were emptied before, and the bytes of this one, or kByFlush.
    using Claim = std::uint64_t;
    static constexpr Claim kByFlush = 0xFFFFFFFF;
    static constexpr Claim ClaimedBytes(Claim claim) { return claim & kByFlush; }

    std::size_t GetUsed() const { return m_used.load(std::memory_order_relaxed); }
    char* ReserveAfterFlush(std::size_t length);
    void BeginFlush(std::size_t used);
    void EndFlush();
    void EmptyBuffer();
    std::size_t FindWritten(std::size_t used) const;

    LogFile m_file;
    std::size_t m_lineLength = 0;
    std::atomic<std::size_t> m_used{0};    // bytes in the buffer
    std::atomic<std::size_t> m_written{0}; // how many of them are in the file already; out of date in a flush
    std::atomic<Claim> m_claim{0};
    std::atomic<std::uint32_t> m_copyOwner{0}; // thread that copies claimed lines
    std::int64_t m_bufferPosition = 0;         // where in the file the buffer's first byte goes, if nobody else writes to it
    char m_buffer[kBufferSize + kExcess];
};

#endif
