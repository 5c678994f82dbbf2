#include "QV/Convert.h"

#include <array>
#include <atomic>
#include <cpuid.h>
#include <immintrin.h>

namespace QV::Convert
{

namespace
{

constexpr std::size_t kBlockSize = 16; // bytes that the wide instructions take at once
constexpr std::size_t kTextSize = 3 * kBlockSize;
alignas(kBlockSize) constexpr char kDigits[] = "0123456789ABCDEF";

constexpr std::array<char, kTextSize> ForEachCharacter(char (*value)(std::size_t at))
{
    std::array<char, kTextSize> values{};
    for (std::size_t at = 0; at < kTextSize; ++at)
    {
        values[at] = value(at);
    }
    return values;
}

// For each character of a block's text: the byte that it shows, which half of it, and what makes a blank of a zero.
alignas(kBlockSize) constexpr auto kBytes = ForEachCharacter([](std::size_t at) { return static_cast<char>(at / 3); });
alignas(kBlockSize) constexpr auto kHighHalves = ForEachCharacter([](std::size_t at) { return at % 3 == 0 ? '\xF' : '\0'; });
alignas(kBlockSize) constexpr auto kLowHalves = ForEachCharacter([](std::size_t at) { return at % 3 == 1 ? '\xF' : '\0'; });
alignas(kBlockSize) constexpr auto kBlanks = ForEachCharacter([](std::size_t at)
                                                              { return at % 3 == 2 ? static_cast<char>('0' ^ ' ') : '\0'; });

__m128i Load(const char* aligned)
{
    return _mm_load_si128(reinterpret_cast<const __m128i*>(aligned));
}

// 16 bytes to their 47 characters, and a blank.
__attribute__((target("ssse3"))) char* WriteBlock(char* out, const unsigned char* bytes)
{
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
#pragma GCC unroll 3
    for (std::size_t at = 0; at < kTextSize; at += kBlockSize)
    {
        const __m128i shown = _mm_shuffle_epi8(block, Load(&kBytes[at]));
        const __m128i high = _mm_and_si128(_mm_srli_epi16(shown, 4), Load(&kHighHalves[at]));
        const __m128i half = _mm_or_si128(high, _mm_and_si128(shown, Load(&kLowHalves[at])));
        const __m128i text = _mm_xor_si128(_mm_shuffle_epi8(Load(kDigits), half), Load(&kBlanks[at]));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + at), text);
    }
    return out + kTextSize - 1;
}

// Asked once, and not when the library is loaded: a virtual machine answers slowly.
bool HasByteShuffle() noexcept
{
    static constinit std::atomic<unsigned int> features = 0;
    unsigned int known = features.load(std::memory_order_relaxed);
    if (known == 0) [[unlikely]]
    {
        unsigned int other = 0;
        __get_cpuid(1, &other, &other, &known, &other);
        features.store(known | 1, std::memory_order_relaxed); // the bit of an older extension, for which nobody asks
    }
    return (known & bit_SSSE3) != 0;
}

} // namespace

char* ToHexStringA(char* out, const unsigned char* bytes, std::size_t count)
{
    if (count == kBlockSize && HasByteShuffle())
    {
        return WriteBlock(out, bytes);
    }
    for (std::size_t i = 0; i < count; ++i)
    {
        *out++ = kDigits[bytes[i] >> 4];
        *out++ = kDigits[bytes[i] & 0xF];
        *out++ = ' ';
    }
    return count == 0 ? out : out - 1;
}

} // namespace QV::Convert
