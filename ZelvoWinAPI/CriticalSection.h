// The fast paths of the critical section and of the thread id, inline. Included by ZelvoWinAPI.h only.
#ifndef ZELVOWINAPI_CRITICALSECTION_H
#define ZELVOWINAPI_CRITICALSECTION_H

#include <atomic>
#include <cstdint>

namespace ZelvoWinAPI
{

namespace Detail
{

constexpr std::uint32_t kWaitersBit = 0x80000000u;

// 0 until asked for, and again in a forked child.
[[gnu::tls_model("initial-exec")]] extern constinit thread_local std::uint32_t tThreadId;

std::uint32_t AskThreadId() noexcept;
Entry EnterTakenSection(_CRITICAL_SECTION* section, std::uint32_t self) noexcept;
void WakeWaiter(std::atomic<std::uint32_t>& ownerWord) noexcept;

inline bool TryTake(std::atomic<std::uint32_t>& ownerWord, std::uint32_t owner) noexcept
{
    std::uint32_t expected = 0;
    return ownerWord.compare_exchange_strong(expected, owner, std::memory_order_acquire, std::memory_order_relaxed);
}

} // namespace Detail

inline std::uint32_t GetCurrentThreadId() noexcept
{
    return Detail::tThreadId != 0 ? Detail::tThreadId : Detail::AskThreadId();
}

inline Entry EnterCriticalSection(_CRITICAL_SECTION* section) noexcept
{
    const std::uint32_t self = GetCurrentThreadId();
    const bool isFree = section->m_ownerWord.load(std::memory_order_relaxed) == 0; // a failing exchange costs as much as one
    return isFree && Detail::TryTake(section->m_ownerWord, self) ? Entry::ENTERED : Detail::EnterTakenSection(section, self);
}

inline void LeaveCriticalSection(_CRITICAL_SECTION* section) noexcept
{
    const std::uint32_t owner = section->m_ownerWord.load(std::memory_order_relaxed) & ~Detail::kWaitersBit;
    if (owner != GetCurrentThreadId()) [[unlikely]]
    {
        return;
    }
    if (section->m_enterCount > 0)
    {
        --section->m_enterCount;
        return;
    }
    const std::uint32_t old = section->m_ownerWord.exchange(0, std::memory_order_release);
    if ((old & Detail::kWaitersBit) != 0) [[unlikely]]
    {
        Detail::WakeWaiter(section->m_ownerWord);
    }
}

} // namespace ZelvoWinAPI

#endif
