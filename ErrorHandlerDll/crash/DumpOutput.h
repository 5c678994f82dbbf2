// Where the lines of a dump go: to standard output, past stdio, whose lock and buffer the interrupted code may hold, and to
// the log. Async-signal-safe inside a dump, unless the host has made standard output a stream without a descriptor.
#ifndef ERRORHANDLERDLL_CRASH_DUMPOUTPUT_H
#define ERRORHANDLERDLL_CRASH_DUMPOUTPUT_H

#include <string_view>

namespace Crash
{

// Logs a line. When that faults, because what is damaged is the logger itself, the line is lost, and the dumps of this
// process go on without the log.
void LogLine(int level, unsigned int mask, const char* source, const char* text);

// The same at level ZR_LOG_ERROR, all categories.
void LogLine(const char* text, const char* source = "");

} // namespace Crash

namespace Crash::StandardOutput
{

// Writes what stdio still buffers for the host, so that the dump comes behind it. Called once for each dump.
void Prepare() noexcept;

// From here to ReleaseLines the lines of this thread wait for each other, so that many of them go out with one write. One
// thread at a time.
void HoldLines() noexcept;
void WriteLines() noexcept;
void ReleaseLines() noexcept;
void Recover() noexcept; // after a fault in the midst of one
void Forget() noexcept;  // in a forked child: they are another thread's, which the child does not have

// Writes the text and a line feed, or holds them back. A reader that does not read is waited for half a second in the life
// of the process; after that standard output is given up.
void PrintLine(std::string_view line) noexcept;

} // namespace Crash::StandardOutput

#endif
