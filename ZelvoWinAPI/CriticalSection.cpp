// Recursive critical section on one futex word, and the thread id that serves as its owner.
#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace ZelvoWinAPI
{

using Detail::kWaitersBit;
using Detail::TryTake;

namespace
{

// A section is held for less than a microsecond as a rule: waiting that long awake is cheaper than two system calls.
constexpr int kSpins = 100;

// How often a bounded wait looks whether the section is free.
constexpr long kPollIntervalNs = 1000000;

void ForgetThreadId() noexcept
{
    Detail::tThreadId = 0;
}

void Futex(std::atomic<std::uint32_t>& word, int operation, std::uint32_t value) noexcept
{
    const int savedErrno = errno;
    syscall(SYS_futex, &word, operation | FUTEX_PRIVATE_FLAG, value, nullptr, nullptr, 0);
    errno = savedErrno;
}

void Wait(std::atomic<std::uint32_t>& word, std::uint32_t self) noexcept
{
    for (int spin = 0; spin < kSpins; ++spin)
    {
        __builtin_ia32_pause();
        if (word.load(std::memory_order_relaxed) == 0 && TryTake(word, self))
        {
            return;
        }
    }
    // From here on the thread takes the section with the waiters' bit set: it cannot know whether others sleep still.
    while (!TryTake(word, self | kWaitersBit))
    {
        std::uint32_t seen = word.load(std::memory_order_relaxed);
        if (seen != 0 && ((seen & kWaitersBit) != 0 || word.compare_exchange_weak(seen, seen | kWaitersBit)))
        {
            Futex(word, FUTEX_WAIT, seen | kWaitersBit);
        }
    }
}

std::uint32_t Owner(const _CRITICAL_SECTION* section) noexcept
{
    return section->m_ownerWord.load(std::memory_order_relaxed) & ~kWaitersBit;
}

// Takes the section when it is free, or counts one entry more when this thread owns it.
bool TryEnter(_CRITICAL_SECTION* section, std::uint32_t self) noexcept
{
    if (TryTake(section->m_ownerWord, self)) [[likely]]
    {
        return true;
    }
    if (Owner(section) == self)
    {
        ++section->m_enterCount;
        return true;
    }
    return false;
}

} // namespace

namespace Detail
{

constinit thread_local std::uint32_t tThreadId = 0;

std::uint32_t AskThreadId() noexcept
{
    tThreadId = static_cast<std::uint32_t>(syscall(SYS_gettid));
    return tThreadId;
}

void EnterTakenSection(_CRITICAL_SECTION* section, std::uint32_t self) noexcept
{
    if (!TryEnter(section, self))
    {
        Wait(section->m_ownerWord, self);
    }
}

void WakeWaiter(std::atomic<std::uint32_t>& ownerWord) noexcept
{
    Futex(ownerWord, FUTEX_WAKE, 1);
}

} // namespace Detail

void InitializeCriticalSection(_CRITICAL_SECTION* section) noexcept
{
    // The forking thread lives on in the child under another id. Registering twice would only forget twice.
    static std::atomic_flag registered = ATOMIC_FLAG_INIT;
    if (!registered.test_and_set())
    {
        pthread_atfork(nullptr, nullptr, ForgetThreadId);
    }
    section->m_enterCount = 0;
    section->m_ownerWord.store(0, std::memory_order_release);
}

void DeleteCriticalSection(_CRITICAL_SECTION* section) noexcept
{
    section->m_enterCount = 0;
    const std::uint32_t old = section->m_ownerWord.exchange(0, std::memory_order_release);
    if ((old & kWaitersBit) != 0)
    {
        Futex(section->m_ownerWord, FUTEX_WAKE, INT_MAX);
    }
}

bool TryEnterCriticalSection(_CRITICAL_SECTION* section, int& waitLeftMs) noexcept
{
    const std::uint32_t self = GetCurrentThreadId();
    if (TryEnter(section, self))
    {
        return true;
    }
    const std::int64_t end = GetTickCount64() + waitLeftMs;
    while (waitLeftMs > 0)
    {
        const timespec interval = {0, kPollIntervalNs};
        syscall(SYS_nanosleep, &interval, nullptr);
        waitLeftMs = static_cast<int>(std::max<std::int64_t>(end - GetTickCount64(), 0));
        if (TryEnter(section, self))
        {
            return true;
        }
    }
    return false;
}

bool IsInCriticalSection(const _CRITICAL_SECTION* section) noexcept
{
    return Owner(section) == GetCurrentThreadId();
}

void AdoptCriticalSection(_CRITICAL_SECTION* section) noexcept
{
    section->m_ownerWord.store(Detail::AskThreadId(), std::memory_order_relaxed);
}

} // namespace ZelvoWinAPI
