// Finds the unwind table entry of an address: the search table of .eh_frame_hdr, then the entry (FDE) and the part that it
// shares with others (CIE).
#ifndef ERRORHANDLERDLL_UNWIND_FRAMETABLE_H
#define ERRORHANDLERDLL_UNWIND_FRAMETABLE_H

#include "ErrorHandlerDll/unwind/MemoryReader.h"

#include <cstdint>

namespace Unwind
{

struct FrameEntry
{
    std::uintptr_t codeStart = 0;
    std::uintptr_t codeEnd = 0;
    std::uintptr_t commonInstructions = 0; // [commonInstructions, commonEnd) run first, then [instructions, end)
    std::uintptr_t commonEnd = 0;
    std::uintptr_t instructions = 0;
    std::uintptr_t end = 0;
    std::uint64_t codeAlignment = 1;
    std::int64_t dataAlignment = 1;
    unsigned returnRegister = 0; // where the return address is found, by register number
    std::uint8_t pointerEncoding = 0;
    bool isSignalFrame = false;
};

// Finds the entry that covers `address`.
//   unwindHeader  address of the object's .eh_frame_hdr; an object without the sorted table in it is not searched
//   returns false when there is none or it is damaged
//   signals async-signal-safe
bool FindFrameEntry(MemoryReader& reader, std::uintptr_t unwindHeader, std::uintptr_t address, FrameEntry& entry) noexcept;

} // namespace Unwind

#endif
