// The small stack machine by which unwind tables describe what no simple offset can, such as the frame of a signal handler.
#ifndef ERRORHANDLERDLL_UNWIND_DWARFEXPRESSION_H
#define ERRORHANDLERDLL_UNWIND_DWARFEXPRESSION_H

#include "ErrorHandlerDll/unwind/FrameRegisters.h"
#include "ErrorHandlerDll/unwind/MemoryReader.h"

#include <cstdint>

namespace Unwind
{

// Evaluates the expression at `block` (its length in LEB128, then the operations) with `initial` on the stack.
//   returns false when it is damaged, holds an operation that no tables use, needs an unknown register or reads unreadable
//           memory
//   signals async-signal-safe
bool EvaluateExpression(MemoryReader& reader, std::uintptr_t block, const FrameRegisters& registers, std::uint64_t initial,
                        std::uint64_t& result) noexcept;

} // namespace Unwind

#endif
