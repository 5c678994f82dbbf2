// Counts heap allocations by standing in front of the C library's allocator, whoever calls it.
#include "bench/Harness.h"

#include <cstddef>

extern "C"
{
    void* __libc_malloc(std::size_t size);
    void* __libc_calloc(std::size_t count, std::size_t size);
    void* __libc_realloc(void* old, std::size_t size);
}

namespace
{

thread_local std::uint64_t tAllocations = 0;

} // namespace

std::uint64_t AllocationCount()
{
    return tAllocations;
}

extern "C"
{
    void* malloc(std::size_t size)
    {
        ++tAllocations;
        return __libc_malloc(size);
    }

    void* calloc(std::size_t count, std::size_t size)
    {
        ++tAllocations;
        return __libc_calloc(count, size);
    }

    void* realloc(void* old, std::size_t size)
    {
        ++tAllocations;
        return __libc_realloc(old, size);
    }
}
