// Reading memory of this process that may not be there: a bad address gives false, never a fault.
//
// For code that runs after a fault, in a signal handler: no heap, no lock, no errno, and no descriptor that stays open.
#ifndef ERRORHANDLERDLL_CRASH_SAFEMEMORY_H
#define ERRORHANDLERDLL_CRASH_SAFEMEMORY_H

#include <cstddef>
#include <cstdint>

namespace Crash
{

// Access rights change only at page boundaries; larger pages are multiples of this one.
inline constexpr std::size_t kPageSize = 4096;

// Copies `size` bytes from `address` to `out`.
//   returns false when any of them cannot be read; `out` is then undefined
//   signals async-signal-safe
bool ReadMemory(const void* address, void* out, std::size_t size) noexcept;

// Copies what can be read of the `size` bytes at `address`, and says for each byte whether it could be.
//   out       unreadable bytes become 0
//   readable  `size` flags
//   signals   async-signal-safe
void ReadMemoryBytes(const void* address, unsigned char* out, bool* readable, std::size_t size) noexcept;

} // namespace Crash

#endif
