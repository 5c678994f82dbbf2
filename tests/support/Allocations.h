// The heap of the program, before that of the C library: counts what the calling thread asks for, and can make it fail.
//
// Built with REPLACES_MALLOC it stands in for malloc and its relatives, whoever calls them; without, for operator new, so
// that sanitizers and memory checkers keep their own malloc.
#ifndef TESTS_SUPPORT_ALLOCATIONS_H
#define TESTS_SUPPORT_ALLOCATIONS_H

namespace Allocations
{

inline constinit thread_local long tCount = 0; // allocations asked for
// So many succeed, then one fails and the countdown is off; below 0: none fails.
inline constinit thread_local long tFailAfter = -1;

} // namespace Allocations

#endif
