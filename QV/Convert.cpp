#include "QV/Convert.h"

#include <array>
#include <atomic>
#include <cpuid.h>
#include <cstdint>
#include <immintrin.h>

namespace QV::Convert
{

namespace
{

constexpr std::size_t kBlockSize = 16; // bytes that the wide instructions take at once
alignas(kBlockSize) constexpr char kDigits[] = "0123456789ABCDEF";

// For 16 characters of a block's text: the byte that each shows, which half of it, and what makes a blank of a zero.
struct Window
{
    alignas(kBlockSize) std::array<char, kBlockSize> bytes;
    alignas(kBlockSize) std::array<char, kBlockSize> highHalves;
    alignas(kBlockSize) std::array<char, kBlockSize> lowHalves;
    alignas(kBlockSize) std::array<char, kBlockSize> blanks;
};

constexpr std::array<Window, 3> MakeWindows()
{
    std::array<Window, 3> windows{};
    for (std::size_t i = 0; i < 3 * kBlockSize; ++i)
    {
        Window& window = windows[i / kBlockSize];
        const std::size_t at = i % kBlockSize;
        window.bytes[at] = static_cast<char>(i / 3);
        window.highHalves[at] = i % 3 == 0 ? 0x0F : 0;
        window.lowHalves[at] = i % 3 == 1 ? 0x0F : 0;
        window.blanks[at] = i % 3 == 2 ? '0' ^ ' ' : 0;
    }
    return windows;
}

constexpr std::array<Window, 3> kWindows = MakeWindows();

__m128i Load(const void* aligned)
{
    return _mm_load_si128(static_cast<const __m128i*>(aligned));
}

// 16 bytes to their 47 characters, and a blank.
__attribute__((target("ssse3"))) char* WriteBlock(char* out, const unsigned char* bytes)
{
    const __m128i digits = Load(kDigits);
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
#pragma GCC unroll 3
    for (const Window& window : kWindows)
    {
        const __m128i shown = _mm_shuffle_epi8(block, Load(&window.bytes));
        const __m128i high = _mm_and_si128(_mm_srli_epi16(shown, 4), Load(&window.highHalves));
        const __m128i low = _mm_and_si128(shown, Load(&window.lowHalves));
        const __m128i text = _mm_xor_si128(_mm_shuffle_epi8(digits, _mm_or_si128(high, low)), Load(&window.blanks));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out), text);
        out += kBlockSize;
    }
    return out - 1;
}

// Asked once: on a virtual machine the question costs as much as a dump.
bool HasByteShuffle() noexcept
{
    static constinit std::atomic<std::uint32_t> features = 0; // never 0 when they are known
    std::uint32_t known = features.load(std::memory_order_relaxed);
    if (known == 0) [[unlikely]]
    {
        std::uint32_t other = 0;
        __get_cpuid(1, &other, &other, &known, &other);
        known |= 1; // the bit of an older extension, for which nobody asks
        features.store(known, std::memory_order_relaxed);
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
