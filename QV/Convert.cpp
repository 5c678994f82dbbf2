#include "QV/Convert.h"

#include <array>
#include <atomic>
#include <cpuid.h>
#include <cstring>
#include <immintrin.h>

namespace QV::Convert
{

namespace
{

constexpr std::size_t kBlockSize = 16; // bytes that the wide instructions take at once

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

bool AskForByteShuffle() noexcept
{
    unsigned int eax = 0;
    unsigned int ebx = 0;
    unsigned int ecx = 0;
    unsigned int edx = 0;
    return __get_cpuid(1, &eax, &ebx, &ecx, &edx) != 0 && (ecx & bit_SSSE3) != 0;
}

// Asked once: on a virtual machine the question costs as much as a dump.
bool HasByteShuffle() noexcept
{
    enum : int
    {
        UNKNOWN,
        NO,
        YES
    };
    static constinit std::atomic<int> answer = UNKNOWN;
    if (answer.load(std::memory_order_relaxed) == UNKNOWN)
    {
        answer.store(AskForByteShuffle() ? YES : NO, std::memory_order_relaxed);
    }
    return answer.load(std::memory_order_relaxed) == YES;
}

// 16 bytes to their 47 characters. Of 32 digits the three stores take the 1st to 11th, 12th to 22nd and 22nd to 32nd, with
// the blanks between the pairs. A quarter faster over a large dump than the table.
__attribute__((target("ssse3"))) char* WriteBlock(char* out, const unsigned char* bytes)
{
    constexpr char kNone = -1; // gives a zero, on which the blank is put
    const __m128i digits = _mm_setr_epi8('0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'A', 'B', 'C', 'D', 'E', 'F');
    const __m128i lowHalves = _mm_set1_epi8(0x0F);
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
    const __m128i high = _mm_shuffle_epi8(digits, _mm_and_si128(_mm_srli_epi16(block, 4), lowHalves));
    const __m128i low = _mm_shuffle_epi8(digits, _mm_and_si128(block, lowHalves));
    const __m128i first = _mm_unpacklo_epi8(high, low);
    const __m128i second = _mm_unpackhi_epi8(high, low);

    const __m128i startOfFirst = _mm_setr_epi8(0, 1, kNone, 2, 3, kNone, 4, 5, kNone, 6, 7, kNone, 8, 9, kNone, 10);
    const __m128i endOfFirst =
        _mm_setr_epi8(11, kNone, 12, 13, kNone, 14, 15, kNone, kNone, kNone, kNone, kNone, kNone, kNone, kNone, kNone);
    const __m128i startOfSecond =
        _mm_setr_epi8(kNone, kNone, kNone, kNone, kNone, kNone, kNone, kNone, 0, 1, kNone, 2, 3, kNone, 4, 5);
    const __m128i endOfSecond = _mm_setr_epi8(5, kNone, 6, 7, kNone, 8, 9, kNone, 10, 11, kNone, 12, 13, kNone, 14, 15);
    const __m128i blanksOfFirst = _mm_setr_epi8(0, 0, ' ', 0, 0, ' ', 0, 0, ' ', 0, 0, ' ', 0, 0, ' ', 0);
    const __m128i blanksOfSecond = _mm_setr_epi8(0, ' ', 0, 0, ' ', 0, 0, ' ', 0, 0, ' ', 0, 0, ' ', 0, 0);

    const auto store = [out](int position, __m128i characters)
    {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + position), characters);
    };
    store(0, _mm_or_si128(_mm_shuffle_epi8(first, startOfFirst), blanksOfFirst));
    store(16, _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(first, endOfFirst), _mm_shuffle_epi8(second, startOfSecond)),
                           blanksOfSecond));
    store(31, _mm_or_si128(_mm_shuffle_epi8(second, endOfSecond), blanksOfSecond));
    return out + 3 * kBlockSize - 1;
}

char* WriteByTable(char* out, const unsigned char* bytes, std::size_t count)
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

} // namespace

char* ToHexStringA(char* out, const unsigned char* bytes, std::size_t count)
{
    if (count < kBlockSize || !HasByteShuffle())
    {
        return WriteByTable(out, bytes, count);
    }
    out = WriteBlock(out, bytes);
    for (bytes += kBlockSize, count -= kBlockSize; count > 0;)
    {
        *out++ = ' ';
        const std::size_t size = count < kBlockSize ? count : kBlockSize;
        out = size == kBlockSize ? WriteBlock(out, bytes) : WriteByTable(out, bytes, size);
        bytes += size;
        count -= size;
    }
    return out;
}

} // namespace QV::Convert
