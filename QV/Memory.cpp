#include "QV/Memory.h"

#include "QV/SignalSafeScope.h"

#include <atomic>
#include <bit>
#include <cstdint>
#include <new>

namespace QV::Memory
{

namespace
{

// A dump needs four blocks at once and may leave one behind; the rest is for threads that dump side by side.
constexpr std::size_t kBlockCount = 64;

alignas(std::max_align_t) char gReserve[kBlockCount * kReserveBlockSize];
constinit std::atomic<std::uint64_t> gBlocksInUse = 0; // a bit for each block

// Heap memory that was given up in an emergency. What finds no place is lost.
constexpr std::size_t kKeptCount = 32;
constinit std::atomic<void*> gKept[kKeptCount] = {};
constinit std::atomic<bool> gAnyKept = false;

void* AllocateFromReserve(std::size_t size)
{
    std::uint64_t inUse = gBlocksInUse.load(std::memory_order_relaxed);
    while (size <= kReserveBlockSize && ~inUse != 0)
    {
        const auto block = static_cast<unsigned int>(std::countr_one(inUse));
        if (gBlocksInUse.compare_exchange_weak(inUse, inUse | (std::uint64_t{1} << block), std::memory_order_acquire))
        {
            return gReserve + block * kReserveBlockSize;
        }
    }
    throw std::bad_alloc();
}

bool FreeToReserve(void* memory) noexcept
{
    const auto offset = reinterpret_cast<std::uintptr_t>(memory) - reinterpret_cast<std::uintptr_t>(gReserve);
    if (offset >= sizeof gReserve)
    {
        return false;
    }
    gBlocksInUse.fetch_and(~(std::uint64_t{1} << (offset / kReserveBlockSize)), std::memory_order_release);
    return true;
}

void Keep(void* memory) noexcept
{
    for (std::atomic<void*>& place : gKept)
    {
        void* expected = nullptr;
        if (place.compare_exchange_strong(expected, memory))
        {
            gAnyKept.store(true);
            return;
        }
    }
}

[[gnu::noinline]] void FreeKept() noexcept
{
    gAnyKept.store(false);
    for (std::atomic<void*>& place : gKept)
    {
        ::operator delete(place.exchange(nullptr));
    }
}

} // namespace

void* Allocate(std::size_t size)
{
    return SignalSafeScope::IsActive() ? AllocateFromReserve(size) : ::operator new(size);
}

void Free(void* memory) noexcept
{
    if (memory == nullptr || FreeToReserve(memory))
    {
        return;
    }
    if (SignalSafeScope::IsActive())
    {
        Keep(memory);
        return;
    }
    ::operator delete(memory);
    if (gAnyKept.load(std::memory_order_relaxed)) [[unlikely]]
    {
        FreeKept();
    }
}

} // namespace QV::Memory
