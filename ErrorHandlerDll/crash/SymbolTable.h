// The exported symbols of a loaded object, searched in memory as dladdr searches them.
#ifndef ERRORHANDLERDLL_CRASH_SYMBOLTABLE_H
#define ERRORHANDLERDLL_CRASH_SYMBOLTABLE_H

#include "ErrorHandlerDll/crash/ElfObject.h"
#include "ErrorHandlerDll/crash/MemoryReader.h"

#include <cstdint>

namespace Crash
{

struct Symbol
{
    std::uintptr_t name = 0; // address of the text, to be read with care; 0 when there is no symbol
    std::uintptr_t start = 0;
};

// Finds the symbol that covers the address, which lies in the object; of several the one that starts last. Its name is 0 when
// there is none.
//   signals async-signal-safe
Symbol FindSymbol(MemoryReader& reader, const ElfObject& object, std::uintptr_t address) noexcept;

} // namespace Crash

#endif
