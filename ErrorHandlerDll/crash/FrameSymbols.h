// The symbols of the frames of a crash's stack. One pass over an object's table finds those of all its frames, and what it
// found serves the later dumps of the same crash.
#ifndef ERRORHANDLERDLL_CRASH_FRAMESYMBOLS_H
#define ERRORHANDLERDLL_CRASH_FRAMESYMBOLS_H

#include "ErrorHandlerDll/crash/ElfObject.h"
#include "ErrorHandlerDll/crash/MemoryReader.h"
#include "ErrorHandlerDll/crash/SymbolTable.h"

#include <span>

namespace Crash
{

// Names the frames that will be asked for, and forgets those of the crash before. Without it each is searched by itself, as
// are those that the reader without the reserve asks for.
//   signals async-signal-safe
void ExpectFrames(std::span<void* const> frames) noexcept;

// The symbol that covers the address, which lies in the object; its name is 0 when there is none.
//   signals async-signal-safe
Symbol FindFrameSymbol(MemoryReader& reader, const ElfObject& object, std::uintptr_t address) noexcept;

} // namespace Crash

#endif
