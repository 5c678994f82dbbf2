// Standard output for a dump: past stdio, whose lock and buffer the interrupted code may hold. Async-signal-safe inside a
// DumpScope, unless the host has made standard output a stream without a descriptor.
#ifndef ERRORHANDLERDLL_CRASH_STANDARDOUTPUT_H
#define ERRORHANDLERDLL_CRASH_STANDARDOUTPUT_H

#include <string_view>

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
