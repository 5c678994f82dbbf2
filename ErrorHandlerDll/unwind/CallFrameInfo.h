// One step up the stack by an object's unwind tables (.eh_frame_hdr and .eh_frame).
#ifndef ERRORHANDLERDLL_UNWIND_CALLFRAMEINFO_H
#define ERRORHANDLERDLL_UNWIND_CALLFRAMEINFO_H

#include "ErrorHandlerDll/unwind/FrameRegisters.h"
#include "ErrorHandlerDll/unwind/MemoryReader.h"

#include <cstdint>

namespace Unwind
{

enum class UnwindResult
{
    UNWOUND,      // `registers` now describe the caller
    INTERRUPTED,  // the same, and the caller was interrupted: its program counter is no return address
    END_OF_STACK, // the tables say that this frame has no caller
    NO_TABLES,    // the address has no entry, or what there is cannot be used; `registers` unchanged
};

// Replaces the registers of a frame by those of its caller.
//   unwindHeader  address of the object's .eh_frame_hdr
//   address       an address within the call: the program counter, or for a return address one less
//   signals       async-signal-safe
UnwindResult UnwindFrame(MemoryReader& reader, std::uintptr_t unwindHeader, std::uintptr_t address,
                         FrameRegisters& registers) noexcept;

} // namespace Unwind

#endif
