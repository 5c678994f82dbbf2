#include "QV/Convert.h"

#include <array>
#include <cstring>

namespace QV::Convert
{

namespace
{

// The digit pair of each byte value: one copy of two characters a byte instead of two look-ups.
constexpr std::array<char, 512> MakeDigitPairs()
{
    constexpr const char* kDigits = "0123456789ABCDEF";
    std::array<char, 512> pairs{};
    for (std::size_t value = 0; value < 256; ++value)
    {
        pairs[2 * value] = kDigits[value >> 4];
        pairs[2 * value + 1] = kDigits[value & 0xF];
    }
    return pairs;
}

constexpr std::array<char, 512> kDigitPairs = MakeDigitPairs();

} // namespace

char* ToHexStringA(char* out, const unsigned char* bytes, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
    {
        if (i > 0)
        {
            *out++ = ' ';
        }
        std::memcpy(out, &kDigitPairs[std::size_t{2} * bytes[i]], 2);
        out += 2;
    }
    return out;
}

} // namespace QV::Convert
