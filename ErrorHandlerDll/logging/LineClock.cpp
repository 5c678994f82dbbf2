#include "ErrorHandlerDll/logging/LineClock.h"

#include <chrono>
#include <cstring>

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

// Calendar fields of a count of seconds since 1970.
std::tm ToCalendar(std::time_t seconds)
{
    const std::chrono::sys_seconds time{std::chrono::seconds(seconds)};
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

} // namespace

void LineClock::SetSecond(std::time_t second)
{
    tzset(); // localtime_r alone would go on with the zone of the first call for as long as the process lives
    std::tm local = {};
    localtime_r(&second, &local);
    WriteDateAndTime(m_text, local);
    m_utcOffset.store(local.tm_gmtoff, std::memory_order_relaxed);
    m_second = second;
}

char* LineClock::WriteStampInEmergency(char* out) const
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    std::memcpy(out, kStampForm, kStampLength);
    WriteDateAndTime(out, ToCalendar(now.tv_sec + m_utcOffset.load(std::memory_order_relaxed)));
    WriteMilliseconds(out, now.tv_nsec);
    return out + kStampLength;
}
