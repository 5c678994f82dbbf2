// Standard output for a dump: past stdio, whose lock and buffer the interrupted code may hold, and without waiting for long.
// Async-signal-safe, unless the host has made standard output a stream without a descriptor.
#ifndef ERRORHANDLERDLL_CRASH_DUMPOUTPUT_H
#define ERRORHANDLERDLL_CRASH_DUMPOUTPUT_H

#include <climits>
#include <string_view>

namespace Crash
{

class StandardOutput
{
public:
    StandardOutput() noexcept;
    ~StandardOutput();
    StandardOutput(const StandardOutput&) = delete;
    StandardOutput& operator=(const StandardOutput&) = delete;

    // Writes what stdio still buffers for the host, so that the dump comes behind it. May fault: a process that crashes may
    // have overwritten `stdout` itself.
    void Prepare() noexcept;

    // Writes the text and a line feed, with the lines around it. A reader that does not read is waited for half a second in
    // a dump; the rest of the dump does without standard output then.
    void PrintLine(std::string_view line) noexcept;
    void WriteLines() noexcept;

private:
    static constexpr int kMaxWaitMs = 500;

    void ReopenWithoutBlocking() noexcept;
    bool Hold(std::string_view line) noexcept;
    std::string_view Write(std::string_view text) noexcept;
    bool WaitUntilReady() noexcept;

    int m_descriptor = 1; // negative for a stream without one
    bool m_isReopened = false;
    bool m_mayBlock = true;
    bool m_isGivenUp = false;
    int m_waitLeftMs;
    std::size_t m_used = 0;
    char m_lines[PIPE_BUF]; // a pipe that is ready takes as much without blocking, and in one piece
};

} // namespace Crash

#endif
