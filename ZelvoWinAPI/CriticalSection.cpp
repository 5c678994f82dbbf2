// Recursive critical section on one futex word, and the thread id that serves as its owner.
#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>
#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace ZelvoWinAPI
{

using Detail::kWaitersBit;
using Detail::TryTake;

namespace
{

// A section is held for less than a microsecond as a rule: waiting that long awake is cheaper than two system calls.
constexpr int kSpins = 100;

// A bounded wait looks often before it sleeps between its looks: other threads that log may take the section again and
// again in a millisecond.
constexpr int kYields = 1000;
constexpr int kPollIntervalMs = 1;

void ForgetThreadId() noexcept
{
    Detail::tThreadId = 0;
}

// A sleep ends now and then by itself: the owner may have been given a lease meanwhile, and leave without a word.
void Futex(std::atomic<std::uint32_t>& word, int operation, std::uint32_t value) noexcept
{
    constexpr timespec kLongestSleep = {0, 200000000};
    const int savedErrno = errno;
    syscall(SYS_futex, &word, operation | FUTEX_PRIVATE_FLAG, value, &kLongestSleep, nullptr, 0);
    errno = savedErrno;
}

std::uint32_t Owner(const _CRITICAL_SECTION* section) noexcept
{
    return section->m_ownerWord.load(std::memory_order_relaxed) & ~kWaitersBit;
}

Entry TakeOver(_CRITICAL_SECTION* section) noexcept
{
    section->m_leaseEnd.store(0, std::memory_order_relaxed);
    section->m_enterCount = 0;
    return Entry::TAKEN_OVER;
}

// Whether the calling code can be what the lease was set for.
bool IsWithinLease(const _CRITICAL_SECTION* section) noexcept
{
    const auto here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
    return section->m_leaseEnd.load(std::memory_order_relaxed) == 0 ||
           (here >= section->m_leaseLow.load(std::memory_order_relaxed) &&
            here < section->m_leaseHigh.load(std::memory_order_relaxed));
}

// Takes the section when it is free, or counts one entry more when this thread owns it.
Entry TryEnter(_CRITICAL_SECTION* section, std::uint32_t self) noexcept
{
    if (Owner(section) != self)
    {
        return TryTake(section->m_ownerWord, self) ? Entry::ENTERED : Entry::REFUSED;
    }
    if (!IsWithinLease(section))
    {
        return TakeOver(section);
    }
    ++section->m_enterCount;
    return Entry::ENTERED;
}

// Watches the lease of another thread while this one waits. A process that was stopped for a while must not take it for
// over before its owner could go on, so it must be seen to be over many times.
class LeaseWatch
{
public:
    Entry TryTakeOver(_CRITICAL_SECTION* section, std::uint32_t self) noexcept
    {
        std::uint32_t owner = section->m_ownerWord.load(); // before the lease, which is then this owner's
        std::int64_t end = section->m_leaseEnd.load();
        if (owner == 0 || end == 0 || end != m_end || GetTickCount64() < end)
        {
            m_end = end;
            m_seenOver = 0;
            return Entry::REFUSED;
        }
        // Of several threads that have seen it, the one that ends the lease is the next owner.
        return ++m_seenOver >= kTimesSeenOver && section->m_leaseEnd.compare_exchange_strong(end, 0) &&
                       section->m_ownerWord.compare_exchange_strong(owner, self | kWaitersBit)
                   ? TakeOver(section)
                   : Entry::REFUSED;
    }

private:
    static constexpr int kTimesSeenOver = 100;

    std::int64_t m_end = 0;
    int m_seenOver = 0;
};

[[gnu::noinline]] Entry Wait(_CRITICAL_SECTION* section, std::uint32_t self) noexcept
{
    std::atomic<std::uint32_t>& word = section->m_ownerWord;
    for (int spin = 0; spin < kSpins; ++spin)
    {
        __builtin_ia32_pause();
        if (word.load(std::memory_order_relaxed) == 0 && TryTake(word, self))
        {
            return Entry::ENTERED;
        }
    }
    // From here on the thread takes the section with the waiters' bit set: it cannot know whether others sleep still.
    LeaseWatch watch;
    while (!TryTake(word, self | kWaitersBit))
    {
        std::uint32_t seen = word.load(std::memory_order_relaxed);
        if (section->m_leaseEnd.load(std::memory_order_relaxed) != 0)
        {
            Sleep(kPollIntervalMs);
            if (watch.TryTakeOver(section, self) == Entry::TAKEN_OVER)
            {
                return Entry::TAKEN_OVER;
            }
        }
        else if (seen != 0 && ((seen & kWaitersBit) != 0 || word.compare_exchange_weak(seen, seen | kWaitersBit)))
        {
            Futex(word, FUTEX_WAIT, seen | kWaitersBit);
        }
    }
    return Entry::ENTERED;
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

Entry EnterTakenSection(_CRITICAL_SECTION* section, std::uint32_t self) noexcept
{
    const Entry entry = TryEnter(section, self);
    return entry == Entry::REFUSED ? Wait(section, self) : entry;
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
    section->m_leaseEnd.store(0, std::memory_order_relaxed);
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

Entry TryEnterCriticalSection(_CRITICAL_SECTION* section, int& waitLeftMs) noexcept
{
    const std::uint32_t self = GetCurrentThreadId();
    Entry entry = TryEnter(section, self);
    if (entry != Entry::REFUSED)
    {
        return entry;
    }
    const std::int64_t end = GetTickCount64() + waitLeftMs;
    const auto timeLeftMs = [end]
    {
        return static_cast<int>(std::max<std::int64_t>(end - GetTickCount64(), 0));
    };
    for (int i = 0; i < kYields && entry == Entry::REFUSED && timeLeftMs() > 0; ++i) // a yield may take a time slice
    {
        sched_yield();
        entry = TryEnter(section, self);
    }
    LeaseWatch watch;
    while (entry == Entry::REFUSED && timeLeftMs() > 0)
    {
        Sleep(kPollIntervalMs);
        entry = TryEnter(section, self);
        entry = entry == Entry::REFUSED ? watch.TryTakeOver(section, self) : entry;
    }
    waitLeftMs = timeLeftMs();
    return entry;
}

bool SetLease(_CRITICAL_SECTION* section, std::uintptr_t low, std::uintptr_t high, int milliseconds,
              std::int64_t& lease) noexcept
{
    if (lease == 0)
    {
        section->m_leaseLow.store(low, std::memory_order_relaxed);
        section->m_leaseHigh.store(high, std::memory_order_relaxed);
    }
    const std::int64_t end = GetTickCount64() + milliseconds;
    std::int64_t expected = lease;
    const bool isOurs = IsInCriticalSection(section) && section->m_leaseEnd.compare_exchange_strong(expected, end);
    lease = isOurs ? end : 0;
    return isOurs;
}

void EndLease(_CRITICAL_SECTION* section, std::int64_t lease) noexcept
{
    section->m_leaseEnd.compare_exchange_strong(lease, 0);
}

bool IsInCriticalSection(const _CRITICAL_SECTION* section) noexcept
{
    return Owner(section) == GetCurrentThreadId();
}

void AdoptCriticalSection(_CRITICAL_SECTION* section) noexcept
{
    section->m_leaseEnd.store(0);
    section->m_ownerWord.store(Detail::AskThreadId(), std::memory_order_relaxed);
}

} // namespace ZelvoWinAPI
