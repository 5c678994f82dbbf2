// Counts the allocations of the calling thread and makes one of them fail.
#ifndef TESTS_SUPPORT_ALLOCATIONS_H
#define TESTS_SUPPORT_ALLOCATIONS_H

#include <cstddef>

namespace Allocations
{

inline thread_local long tCount = 0;           // calls of operator new
inline thread_local std::size_t tLastSize = 0; // bytes that the last one asked for
inline thread_local long tFailAfter = -1; // so many succeed, then one fails and the countdown is off; below 0: none fails

} // namespace Allocations

#endif
