// The exported symbols of a loaded object, searched in memory as dladdr searches them.
#ifndef ERRORHANDLERDLL_UNWIND_SYMBOLTABLE_H
#define ERRORHANDLERDLL_UNWIND_SYMBOLTABLE_H

#include "ErrorHandlerDll/unwind/LoadedObjects.h"
#include "ErrorHandlerDll/unwind/MemoryReader.h"

#include <cstdint>
#include <span>

namespace Unwind
{

struct Symbol
{
    std::uintptr_t name = 0; // address of the text, to be read with care; 0 when there is no symbol
    std::uintptr_t start = 0;
};

// What to find, and what was found.
struct SymbolSearch
{
    std::uintptr_t address = 0;
    Symbol symbol;
};

// Finds the symbols that cover the addresses, all of which lie in the object, in one pass over its table; of several symbols
// the one that starts last.
//   signals async-signal-safe
void FindSymbols(MemoryReader& reader, const ElfObject& object, std::span<SymbolSearch* const> searches) noexcept;

} // namespace Unwind

#endif
