#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <charconv>

namespace ZelvoWinAPI
{

namespace
{

constexpr int kTextSize = 34; // the longest text: 32 binary digits, a sign and the NUL

} // namespace

char* itoa(int value, char* buffer, int radix) noexcept
{
    char* end = buffer;
    if (radix == 10)
    {
        end = std::to_chars(buffer, buffer + kTextSize - 1, value).ptr;
    }
    else if (radix >= 2 && radix <= 36)
    {
        end = std::to_chars(buffer, buffer + kTextSize - 1, static_cast<unsigned int>(value), radix).ptr;
    }
    *end = '\0';
    return buffer;
}

} // namespace ZelvoWinAPI
