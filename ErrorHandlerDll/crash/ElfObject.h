// Which loaded object an address lies in, and where that object keeps its unwind tables.
#ifndef ERRORHANDLERDLL_CRASH_ELFOBJECT_H
#define ERRORHANDLERDLL_CRASH_ELFOBJECT_H

#include "ErrorHandlerDll/crash/MemoryReader.h"
#include "ErrorHandlerDll/crash/ModuleList.h"

#include <cstdint>

namespace Crash
{

struct ElfObject
{
    Module module{};
    std::uintptr_t start = 0; // all segments: [start, end)
    std::uintptr_t end = 0;
    std::uintptr_t codeStart = 0; // executable segments: [codeStart, codeEnd)
    std::uintptr_t codeEnd = 0;
    std::uintptr_t unwindHeader = 0; // address of the search table over the unwind tables; 0 when there is none

    bool Contains(std::uintptr_t address) const noexcept { return address >= start && address < end; }
    bool HasCodeAt(std::uintptr_t address) const noexcept { return address >= codeStart && address < codeEnd; }
};

// Finds the object that holds `address`.
//   returns false when there is none, or the linker's list cannot be followed that far; `object` is then empty
//   signals async-signal-safe
bool FindObject(MemoryReader& reader, std::uintptr_t address, ElfObject& object) noexcept;

} // namespace Crash

#endif
