// Buffer: where the lines go, a name, its open file, and a buffer of whole lines before it. What the strategies work on. The
// caller holds the logger's section.
//
// The buffer is our own and not stdio's for three reasons. A host's fflush(nullptr) on another thread would empty a stream
// that we fill without its lock, and write lines twice. A stream whose write fails throws its buffer away, where this one
// keeps the bytes and writes them with the next flush. And a dump can tell from its state, at any instruction at which the
// code below was interrupted, which bytes are in the file.
#ifndef ERRORHANDLERDLL_LOGGING_LOGOUTPUT_H
#define ERRORHANDLERDLL_LOGGING_LOGOUTPUT_H

#include "ErrorHandlerDll/logging/LogFile.h"
#include "QV/BaseString.h"

class LogOutput
{
public:
    // Large enough for the 101 lines between two flushes as a rule, so that they cost one write.
    static constexpr std::size_t kBufferSize = std::size_t{64} * 1024;

    explicit LogOutput(const char* name) : m_name(name) {}

    const QV::BaseString<char>& GetName() const { return m_name; }

    // The characters of an unchanged name stay where they are: hosts hold pointers to them.
    void SetName(const QV::BaseString<char>& name);

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

    // Where the next line is to be composed, `length` bytes with its line feed; Commit then takes it. A line that does not
    // fit behind the buffered ones is preceded by a flush, so that every write carries whole lines.
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

    // Whether the code that was interrupted is in the middle of a flush.
    bool IsFlushing() const { return m_flushing.load(std::memory_order_acquire); }

    // As Flush, but the buffer stays where it is: the interrupted code may be composing a line behind it.
    bool WriteBuffered(int* waitLeftMs = WaitLimit());

    bool WriteBesideOwner(LogFile::Pieces pieces) const { return m_file.WriteBesideOwner(pieces, WaitLimit()); }

    // Counts as written what is not: it is the parent's to write, or lost.
    void ForgetBuffer() { m_written.store(GetUsed(), std::memory_order_release); }

    // Makes the state whole again after a call that was cut off.
    void ForgetInterruptedCall();

    // Gives the name back for good.
    void Release() { m_name.Release(); }

    // Takes the name's length anew. Returns whether a file of that name can be opened at all.
    bool RemeasureName();

private:
    std::size_t GetUsed() const { return m_used.load(std::memory_order_relaxed); }
    char* ReserveAfterFlush(std::size_t length);
    bool WriteAll(LogFile::Pieces pieces, std::atomic<std::size_t>& written, int* waitLeftMs);
    void EndOnWholeLine(LogFile::Pieces pieces, std::atomic<std::size_t>& written);
    std::size_t FindWritten(std::size_t used) const;

    QV::BaseString<char> m_name;
    LogFile m_file;
    std::size_t m_lineLength = 0;
    std::atomic<std::size_t> m_used{0};    // bytes in the buffer
    std::atomic<std::size_t> m_written{0}; // how many of them are in the file already
    std::atomic<bool> m_flushing{false};   // m_written may be out of date
    std::int64_t m_bufferPosition = 0;     // where in the file the buffer's first byte goes, if nobody else writes to it
    char m_buffer[kBufferSize];
};

#endif
