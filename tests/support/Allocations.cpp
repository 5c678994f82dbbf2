#include "support/Allocations.h"

#include <cerrno>
#include <cstdlib>
#include <new>

namespace
{

void Enter()
{
    if (Allocations::gEnter != nullptr)
    {
        Allocations::gEnter();
    }
}

void Leave(int blocks)
{
    if (Allocations::gLeave != nullptr)
    {
        Allocations::gLeave(blocks);
    }
}

template <class Allocate>
void* Try(std::size_t size, const Allocate& allocate, bool isNewBlock = true)
{
    Enter();
    ++Allocations::tCount;
    Allocations::tLastSize = size;
    const bool fails = Allocations::gIsExhausted || (Allocations::tFailAfter >= 0 && Allocations::tFailAfter-- == 0);
    void* const memory = fails ? nullptr : allocate();
    Leave(memory != nullptr && isNewBlock ? 1 : 0);
    if (fails)
    {
        errno = ENOMEM;
    }
    return memory;
}

void Free(void* memory, void (*free)(void*)) noexcept
{
    Enter();
    free(memory);
    Leave(memory != nullptr ? -1 : 0);
}

} // namespace

#ifdef REPLACES_MALLOC

extern "C"
{
    void* __libc_malloc(std::size_t size);
    void* __libc_calloc(std::size_t count, std::size_t size);
    void* __libc_realloc(void* memory, std::size_t size);
    void* __libc_memalign(std::size_t alignment, std::size_t size);
    void __libc_free(void* memory);

    void* malloc(std::size_t size) noexcept
    {
        return Try(size, [=] { return __libc_malloc(size); });
    }
    void* calloc(std::size_t count, std::size_t size) noexcept
    {
        return Try(count * size, [=] { return __libc_calloc(count, size); });
    }
    void* realloc(void* old, std::size_t size) noexcept
    {
        return Try(
            size, [=] { return __libc_realloc(old, size); }, old == nullptr);
    }
    void* memalign(std::size_t alignment, std::size_t size) noexcept
    {
        return Try(size, [=] { return __libc_memalign(alignment, size); });
    }
    void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept
    {
        return memalign(alignment, size);
    }
    int posix_memalign(void** memory, std::size_t alignment, std::size_t size) noexcept
    {
        *memory = memalign(alignment, size);
        return *memory == nullptr ? ENOMEM : 0;
    }
    void free(void* memory) noexcept
    {
        Free(memory, __libc_free);
    }
}

#else

namespace
{

void* TryMalloc(std::size_t size) noexcept
{
    return Try(size, [=] { return std::malloc(size > 0 ? size : 1); });
}

void* TryOrThrow(std::size_t size)
{
    void* const memory = TryMalloc(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

} // namespace

// The array forms too: the sanitizers' own do not call the plain ones.
void* operator new(std::size_t size)
{
    return TryOrThrow(size);
}
void* operator new[](std::size_t size)
{
    return TryOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return TryMalloc(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return TryMalloc(size);
}
void operator delete(void* memory) noexcept
{
    Free(memory, std::free);
}
void operator delete(void* memory, std::size_t) noexcept
{
    Free(memory, std::free);
}
void operator delete[](void* memory) noexcept
{
    Free(memory, std::free);
}
void operator delete[](void* memory, std::size_t) noexcept
{
    Free(memory, std::free);
}

#endif
