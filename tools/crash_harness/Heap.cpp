#include "Heap.h"

#include <cerrno>
#include <cstddef>
#include <pthread.h>

extern "C"
{
    void* __libc_malloc(std::size_t size);
    void* __libc_calloc(std::size_t count, std::size_t size);
    void* __libc_realloc(void* memory, std::size_t size);
    void* __libc_memalign(std::size_t alignment, std::size_t size);
    void __libc_free(void* memory);
}

namespace
{

pthread_mutex_t gLock = PTHREAD_MUTEX_INITIALIZER;
volatile bool gLocking = false; // off in the random trials, which are to meet the C library's own locks
volatile bool gExhausted = false;
thread_local void (*tTrap)() = nullptr;
thread_local bool tCounting = false;
thread_local std::uint64_t tCalls = 0;

class Lock
{
public:
    Lock() : m_held(gLocking)
    {
        if (tCounting)
        {
            ++tCalls;
        }
        if (m_held)
        {
            pthread_mutex_lock(&gLock);
        }
        if (tTrap != nullptr)
        {
            void (*const trap)() = tTrap;
            tTrap = nullptr;
            trap();
        }
    }
    ~Lock()
    {
        if (m_held)
        {
            pthread_mutex_unlock(&gLock);
        }
    }

private:
    const bool m_held;
};

void* NullWhenExhausted(void* (*allocate)(void*, std::size_t, std::size_t), void* memory, std::size_t a, std::size_t b)
{
    const Lock lock;
    if (gExhausted)
    {
        errno = ENOMEM;
        return nullptr;
    }
    return allocate(memory, a, b);
}

} // namespace

void Heap::SetTrap(void (*trap)())
{
    gLocking = true;
    tTrap = trap;
}

void Heap::Exhaust()
{
    gExhausted = true;
}

void Heap::CountCalls()
{
    tCounting = true;
}

std::uint64_t Heap::GetCalls()
{
    return tCalls;
}

extern "C"
{
    void* malloc(std::size_t size)
    {
        return NullWhenExhausted([](void*, std::size_t n, std::size_t) { return __libc_malloc(n); }, nullptr, size, 0);
    }
    void* calloc(std::size_t count, std::size_t size)
    {
        return NullWhenExhausted([](void*, std::size_t n, std::size_t s) { return __libc_calloc(n, s); }, nullptr, count,
                                 size);
    }
    void* realloc(void* memory, std::size_t size)
    {
        return NullWhenExhausted([](void* old, std::size_t n, std::size_t) { return __libc_realloc(old, n); }, memory, size,
                                 0);
    }
    void* memalign(std::size_t alignment, std::size_t size)
    {
        return NullWhenExhausted([](void*, std::size_t a, std::size_t n) { return __libc_memalign(a, n); }, nullptr,
                                 alignment, size);
    }
    void* aligned_alloc(std::size_t alignment, std::size_t size)
    {
        return memalign(alignment, size);
    }
    int posix_memalign(void** memory, std::size_t alignment, std::size_t size)
    {
        *memory = memalign(alignment, size);
        return *memory == nullptr ? ENOMEM : 0;
    }
    void free(void* memory)
    {
        const Lock lock;
        __libc_free(memory);
    }
}
