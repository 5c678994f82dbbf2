// The heap of the program, around that of the C library: counts what the calling thread asks for, and can make it fail.
//
// Built with REPLACES_MALLOC it stands in for malloc and its relatives, whoever calls them; without, for operator new, so
// that sanitizers and memory checkers keep their own malloc.
#ifndef TESTS_SUPPORT_ALLOCATIONS_H
#define TESTS_SUPPORT_ALLOCATIONS_H

#include <cstddef>

namespace Allocations
{

inline constinit thread_local long tCount = 0;           // allocations asked for
inline constinit thread_local std::size_t tLastSize = 0; // bytes that the last one asked for
// So many succeed, then one fails and the countdown is off; below 0: none fails.
inline constinit thread_local long tFailAfter = -1;
inline bool gIsExhausted = false; // every one fails, on every thread

// Called before and after each call of the heap, free included: for a lock or a trap of the program's own, or for counting.
inline void (*gEnter)() = nullptr;
inline void (*gLeave)(int blocks) = nullptr; // how many blocks more there are: 1, 0 or -1

} // namespace Allocations

#endif
