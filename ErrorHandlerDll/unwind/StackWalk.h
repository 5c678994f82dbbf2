// The call stack as backtrace() gives it, but walked by this library itself: no lock of the loader, no heap, and every byte
// is read in a way that survives a smashed stack or damaged tables. Damage ends the walk early.
#ifndef ERRORHANDLERDLL_UNWIND_STACKWALK_H
#define ERRORHANDLERDLL_UNWIND_STACKWALK_H

#include "ErrorHandlerDll/unwind/FrameRegisters.h"

#include <cstdint>

namespace Unwind
{

struct WalkResult
{
    int count = 0;           // frames stored
    int signalFrames = 0;    // signal handlers met
    bool reachedEnd = false; // came to the outermost frame, by tables all the way; else a signal handler may be missed
};

// Stores the return addresses of this thread from the given frame on, innermost first. In a signal handler the trampoline
// and the interrupted function follow the handler's own frames. Where backtrace() has to stop (a call through a null or wild
// pointer, code without unwind tables) the walk goes on if the stack shows how, and so it does where code has switched
// stacks.
//   frames  room for `capacity` addresses; null with 0. The walk itself goes on beyond, so that its answers hold.
//   signals async-signal-safe; 36 KiB of stack
WalkResult WalkStack(const FrameRegisters& start, void** frames, int capacity) noexcept;

} // namespace Unwind

#endif
