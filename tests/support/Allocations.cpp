#include "support/Allocations.h"

#include <cerrno>
#include <cstdlib>
#include <new>

namespace
{

bool Fails()
{
    ++Allocations::tCount;
    const bool fails = Allocations::tFailAfter >= 0 && Allocations::tFailAfter-- == 0;
    errno = fails ? ENOMEM : errno;
    return fails;
}

} // namespace

#ifdef REPLACES_MALLOC

extern "C"
{
    void* __libc_malloc(std::size_t size);
    void* __libc_calloc(std::size_t count, std::size_t size);
    void* __libc_realloc(void* memory, std::size_t size);

    void* malloc(std::size_t size) noexcept
    {
        return Fails() ? nullptr : __libc_malloc(size);
    }
    void* calloc(std::size_t count, std::size_t size) noexcept
    {
        return Fails() ? nullptr : __libc_calloc(count, size);
    }
    void* realloc(void* old, std::size_t size) noexcept
    {
        return Fails() ? nullptr : __libc_realloc(old, size);
    }
}

#else

// The array forms too: the sanitizers' own do not call the plain ones.
void* operator new(std::size_t size)
{
    void* const memory = Fails() ? nullptr : std::malloc(size > 0 ? size : 1);
    return memory != nullptr ? memory : throw std::bad_alloc();
}
void* operator new[](std::size_t size)
{
    return operator new(size);
}
void operator delete(void* memory) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept
{
    std::free(memory);
}

#endif
