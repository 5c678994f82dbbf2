#include "ErrorHandlerDll/logging/LineClock.h"

namespace
{

void WriteTwoDigits(char* out, int number)
{
    out[0] = static_cast<char>('0' + number / 10 % 10);
    out[1] = static_cast<char>('0' + number % 10);
}

} // namespace

void LineClock::SetSecond(std::time_t second)
{
    tzset(); // localtime_r alone would go on with the zone of the first call for as long as the process lives
    std::tm local = {};
    localtime_r(&second, &local);
    WriteTwoDigits(m_text, local.tm_mday);
    WriteTwoDigits(m_text + 3, local.tm_mon + 1);
    WriteTwoDigits(m_text + 6, local.tm_year % 100);
    WriteTwoDigits(m_text + 9, local.tm_hour);
    WriteTwoDigits(m_text + 12, local.tm_min);
    WriteTwoDigits(m_text + 15, local.tm_sec);
    m_second = second;
}
