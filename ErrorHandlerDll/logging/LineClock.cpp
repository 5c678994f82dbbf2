#include "ErrorHandlerDll/logging/LineClock.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

constexpr char kStampForm[] = "00/00/00 00:00:00.000 - ";

void WriteTwoDigits(char* out, int number)
{
    out[0] = static_cast<char>('0' + number / 10 % 10);
    out[1] = static_cast<char>('0' + number % 10);
}

void WriteDateAndTime(char* stamp, const std::tm& time)
{
    WriteTwoDigits(stamp, time.tm_mday);
    WriteTwoDigits(stamp + 3, time.tm_mon + 1);
    WriteTwoDigits(stamp + 6, time.tm_year % 100);
    WriteTwoDigits(stamp + 9, time.tm_hour);
    WriteTwoDigits(stamp + 12, time.tm_min);
    WriteTwoDigits(stamp + 15, time.tm_sec);
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

std::tm LineClock::AskForZone(std::time_t second)
{
    tzset(); // localtime_r alone would go on with the zone of the first call for as long as the process lives
    std::tm local = {};
    localtime_r(&second, &local);
    m_utcOffset.store(local.tm_gmtoff, std::memory_order_relaxed);
    return local;
}

std::tm LineClock::Compute(std::time_t second) const
{
    const std::chrono::sys_seconds time{std::chrono::seconds(second + m_utcOffset.load(std::memory_order_relaxed))};
    const auto midnight = std::chrono::floor<std::chrono::days>(time);
    const std::chrono::year_month_day date(midnight);
    const std::chrono::hh_mm_ss clock(time - midnight);
    std::tm fields = {};
    fields.tm_year = static_cast<int>(date.year()) - 1900;
    fields.tm_mon = static_cast<int>(static_cast<unsigned int>(date.month())) - 1;
    fields.tm_mday = static_cast<int>(static_cast<unsigned int>(date.day()));
    fields.tm_hour = static_cast<int>(clock.hours().count());
    fields.tm_min = static_cast<int>(clock.minutes().count());
    fields.tm_sec = static_cast<int>(clock.seconds().count());
    return fields;
}

void LineClock::SetSecond(std::time_t second)
{
    m_second = -1; // a call that is cut off here leaves half a text
    WriteDateAndTime(m_text, MayAskForZone() ? AskForZone(second) : Compute(second));
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
    WriteDateAndTime(out, Compute(now.tv_sec));
    WriteMilliseconds(out, now.tv_nsec);
    return out + kStampLength;
}
