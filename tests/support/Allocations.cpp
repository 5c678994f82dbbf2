#include "support/Allocations.h"

#include <cstdlib>
#include <new>

namespace
{

void* Allocate(std::size_t size) noexcept
{
    ++Allocations::tCount;
    Allocations::tLastSize = size;
    if (Allocations::tFailAfter >= 0 && Allocations::tFailAfter-- == 0)
    {
        return nullptr;
    }
    return std::malloc(size > 0 ? size : 1);
}

void* AllocateOrThrow(std::size_t size)
{
    void* memory = Allocate(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

} // namespace

// The array forms too: the sanitizers' own do not call the plain ones.
void* operator new(std::size_t size)
{
    return AllocateOrThrow(size);
}
void* operator new[](std::size_t size)
{
    return AllocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return Allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return Allocate(size);
}
void operator delete(void* memory) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept
{
    std::free(memory);
}
