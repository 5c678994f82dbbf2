// Memory that stays mapped as long as this library does: the program, the C library, the loader and this library
// itself. No thread unloads them, so what could be read there a moment ago can be read.
#ifndef ERRORHANDLERDLL_CRASH_PERMANENTMEMORY_H
#define ERRORHANDLERDLL_CRASH_PERMANENTMEMORY_H

#include <cstddef>
#include <cstdint>

namespace Crash
{

// Asks the loader where these objects lie; before that there is no permanent memory. Once, when the library is loaded.
int LearnPermanentMemory() noexcept;

// Whether all of the `size` bytes at `address` lie in one of them. They need not be readable.
//   signals async-signal-safe
bool IsPermanentMemory(std::uintptr_t address, std::size_t size) noexcept;

} // namespace Crash

#endif
