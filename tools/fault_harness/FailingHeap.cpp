#include "FailingHeap.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace
{

thread_local long tCountdown = -1; // below 0: none fails
thread_local bool tFailed = false;
std::atomic<long> gOutstanding{0};

bool FailsNow()
{
    if (tCountdown < 0 || tCountdown-- > 0)
    {
        return false;
    }
    tFailed = true;
    errno = ENOMEM;
    return true;
}

} // namespace

namespace FailingHeap
{

void FailAfter(long allocations)
{
    tFailed = false;
    tCountdown = allocations;
}

bool Stop()
{
    tCountdown = -1;
    return tFailed;
}

long Outstanding()
{
    return gOutstanding;
}

} // namespace FailingHeap

#ifdef __SANITIZE_ADDRESS__

void* operator new(std::size_t size)
{
    void* const memory = FailsNow() ? nullptr : std::malloc(size);
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

#else

extern "C"
{
    void* __libc_malloc(std::size_t size);
    void* __libc_calloc(std::size_t count, std::size_t size);
    void* __libc_realloc(void* memory, std::size_t size);
    void __libc_free(void* memory);

    void* malloc(std::size_t size) noexcept
    {
        void* const memory = FailsNow() ? nullptr : __libc_malloc(size);
        gOutstanding += memory != nullptr ? 1 : 0;
        return memory;
    }
    void* calloc(std::size_t count, std::size_t size) noexcept
    {
        void* const memory = FailsNow() ? nullptr : __libc_calloc(count, size);
        gOutstanding += memory != nullptr ? 1 : 0;
        return memory;
    }
    void* realloc(void* old, std::size_t size) noexcept
    {
        void* const memory = FailsNow() ? nullptr : __libc_realloc(old, size);
        gOutstanding += old == nullptr && memory != nullptr ? 1 : 0;
        return memory;
    }
    void free(void* memory) noexcept
    {
        gOutstanding -= memory != nullptr ? 1 : 0;
        __libc_free(memory);
    }
}

#endif
