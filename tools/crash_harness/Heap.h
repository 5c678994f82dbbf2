// The host's own heap functions: the C library's behind one lock, with ways to fail. They let a thread fault, or stop for
// ever, while it holds the heap.
#ifndef CRASH_HARNESS_HEAP_H
#define CRASH_HARNESS_HEAP_H

#include <cstdint>

namespace Heap
{

// The next allocation of this thread calls `trap` with the lock held.
void SetTrap(void (*trap)());

// From now on every allocation fails.
void Exhaust();

// Counts the calls that this thread makes from now on.
void CountCalls();
std::uint64_t GetCalls();

} // namespace Heap

#endif
