// The text of a stack frame, as backtrace_symbols gives it, made without the heap and without the loader.
#ifndef ERRORHANDLERDLL_CRASH_FRAMETEXT_H
#define ERRORHANDLERDLL_CRASH_FRAMETEXT_H

#include "ErrorHandlerDll/crash/MemoryReader.h"

namespace Crash
{

// Writes the text of the return address `frame`: "path(symbol+0x1f) [0x401b3f]", "path(+0x1b3f) [0x401b3f]",
// "path() [0x401b3f]" or "[0x401b3f]".
//   size    bytes at `out`; a longer text loses the ends of path and symbol, never the offset and the address
//   returns the length of the text; it is always terminated (size > 0)
//   reader  for all frames of a stack the same one: most of them lie in a few objects
//   signals async-signal-safe; about 1 KiB of stack
int FormatFrame(MemoryReader& reader, const void* frame, char* out, int size) noexcept;

} // namespace Crash

#endif
