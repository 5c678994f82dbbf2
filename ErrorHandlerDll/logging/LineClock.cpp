#include "ErrorHandlerDll/logging/LineClock.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

constexpr char kStampForm[] = "00/00/00 00:00:00.000 - ";

void WriteTwoDigits(char* out, long number)
{
    out[0] = static_cast<char>('0' + number / 10 % 10);
    out[1] = static_cast<char>('0' + number % 10);
}

std::uint64_t GetBlockedSignals()
{
    std::uint64_t signals = 0;
    syscall(SYS_rt_sigprocmask, SIG_BLOCK, nullptr, &signals, sizeof signals);
    return signals;
}

} // namespace

// A line that is logged in a signal handler must not wait for the lock of the zone's data: the interrupted code may hold it.
// A handler blocks its signal, or runs on a stack of its own.
bool LineClock::MayAskForZone() const
{
    stack_t stack = {};
    sigaltstack(nullptr, &stack);
    return !m_isZoneLost && (GetBlockedSignals() & ~m_usualMask) == 0 && (stack.ss_flags & SS_ONSTACK) == 0;
}

void LineClock::WriteSecond(char* stamp, std::time_t second) const
{
    const std::chrono::sys_seconds time{std::chrono::seconds(second + m_utcOffset.load(std::memory_order_relaxed))};
    const auto midnight = std::chrono::floor<std::chrono::days>(time);
    const std::chrono::year_month_day date(midnight);
    const std::chrono::hh_mm_ss clock(time - midnight);
    WriteTwoDigits(stamp, static_cast<unsigned int>(date.day()));
    WriteTwoDigits(stamp + 3, static_cast<unsigned int>(date.month()));
    WriteTwoDigits(stamp + 6, static_cast<int>(date.year()));
    WriteTwoDigits(stamp + 9, clock.hours().count());
    WriteTwoDigits(stamp + 12, clock.minutes().count());
    WriteTwoDigits(stamp + 15, clock.seconds().count());
}

void LineClock::SetSecond(std::time_t second)
{
    m_second = -1; // a call that is cut off here leaves half a text
    if (MayAskForZone())
    {
        tzset(); // localtime_r alone would go on with the zone of the first call for as long as the process lives
        std::tm local = {};
        localtime_r(&second, &local);
        m_utcOffset.store(local.tm_gmtoff, std::memory_order_relaxed);
    }
    WriteSecond(m_text, second);
    m_second = second;
}

void LineClock::WarmUp()
{
    m_usualMask = GetBlockedSignals();
    SetSecond(std::time(nullptr));
}

char* LineClock::WriteStampSignalSafe(char* out) const
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    std::memcpy(out, kStampForm, kStampLength);
    WriteSecond(out, now.tv_sec);
    WriteMilliseconds(out, now.tv_nsec);
    return out + kStampLength;
}
