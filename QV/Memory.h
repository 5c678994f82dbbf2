// Where strings take their memory: from the heap, and in an emergency from a reserve that needs no lock. Memory from the
// reserve may outlive the emergency, and is given back in the same way.
#ifndef QV_MEMORY_H
#define QV_MEMORY_H

#include <cstddef>

namespace QV::Memory
{

// The largest text that the reserve can hold, in bytes: a path, and what a line adds to it.
constexpr std::size_t kReserveBlockSize = 4352;

// Returns `size` bytes.
//   throws   std::bad_alloc; in an emergency when `size` is above kReserveBlockSize or the reserve is used up
//   signals  async-signal-safe in an emergency
void* Allocate(std::size_t size);

// Gives back what Allocate returned. In an emergency memory from the heap is kept for a later call outside of one.
void Free(void* memory) noexcept;

} // namespace QV::Memory

#endif
