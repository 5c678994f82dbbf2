// The call stack as backtrace() gives it, but walked by this library itself: no lock of the loader, no heap, and every byte
// is read in a way that survives a smashed stack or damaged tables. Damage ends the walk early.
#ifndef ERRORHANDLERDLL_UNWIND_STACKWALK_H
#define ERRORHANDLERDLL_UNWIND_STACKWALK_H

#include "ErrorHandlerDll/unwind/FrameRegisters.h"

namespace Unwind
{

// Stores the return addresses of this thread from the given frame on, innermost first. In a signal handler the trampoline
// and the interrupted function follow the handler's own frames. Where backtrace() has to stop (a call through a null or wild
// pointer, code without unwind tables) the walk goes on if the stack shows how.
//   returns the number of frames stored, at most `capacity`
//   signals async-signal-safe; 130 KiB of stack
int WalkStack(const FrameRegisters& start, void** frames, int capacity) noexcept;

} // namespace Unwind

#endif
