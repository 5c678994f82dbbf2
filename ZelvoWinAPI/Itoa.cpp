#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <charconv>

namespace ZelvoWinAPI
{

char* itoa(int value, char* buffer, int radix) noexcept
{
    constexpr int kMaxTextSize = 12; // "-2147483648" and its NUL
    *(radix == 10 ? std::to_chars(buffer, buffer + kMaxTextSize - 1, value).ptr : buffer) = '\0';
    return buffer;
}

} // namespace ZelvoWinAPI
