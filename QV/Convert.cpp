#include "QV/Convert.h"

#include <array>
#include <cstring>

namespace QV::Convert
{

namespace
{

// The digits of each byte value and the blank behind them: one copy a byte. Its fourth character is overwritten by the next.
using Digits = std::array<char, 4>;

constexpr std::array<Digits, 256> MakeDigits()
{
    constexpr const char* kDigits = "0123456789ABCDEF";
    std::array<Digits, 256> digits{};
    for (std::size_t value = 0; value < digits.size(); ++value)
    {
        digits[value] = {kDigits[value >> 4], kDigits[value & 0xF], ' ', ' '};
    }
    return digits;
}

constexpr std::array<Digits, 256> kDigits = MakeDigits();

} // namespace

char* ToHexStringA(char* out, const unsigned char* bytes, std::size_t count)
{
    if (count == 0)
    {
        return out;
    }
    for (std::size_t i = 0; i + 1 < count; ++i)
    {
        std::memcpy(out, kDigits[bytes[i]].data(), sizeof(Digits));
        out += 3;
    }
    std::memcpy(out, kDigits[bytes[count - 1]].data(), 2);
    return out + 2;
}

} // namespace QV::Convert
