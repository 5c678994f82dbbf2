// The exported symbols of a loaded object, searched in memory as dladdr searches them.
#ifndef ERRORHANDLERDLL_CRASH_SYMBOLTABLE_H
#define ERRORHANDLERDLL_CRASH_SYMBOLTABLE_H

#include <cstdint>

#include "ElfObject.h"
#include "SafeMemory.h"

namespace Crash
{

struct Symbol
{
    std::uintptr_t name = 0; // address of the text, to be read with care
    std::uintptr_t start = 0;
};

// Finds the symbol that covers `address`; of several the one that starts last.
//   returns false when no symbol does or the tables cannot be read
//   signals async-signal-safe
bool FindSymbol(MemoryReader& reader, const ElfObject& object, std::uintptr_t address, Symbol& symbol) noexcept;

} // namespace Crash

#endif
