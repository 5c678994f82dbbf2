#include "QV/Convert.h"

#include <emmintrin.h>

namespace QV::Convert
{

namespace
{

constexpr std::size_t kBlockSize = 16; // bytes that are converted at once
constexpr char kDigits[] = "0123456789ABCDEF";

// The digits of 16 halves of bytes.
__m128i ToDigits(__m128i halves)
{
    const __m128i isLetter = _mm_cmpgt_epi8(halves, _mm_set1_epi8(9));
    const __m128i toLetter = _mm_and_si128(isLetter, _mm_set1_epi8('A' - '9' - 1));
    return _mm_add_epi8(_mm_add_epi8(halves, _mm_set1_epi8('0')), toLetter);
}

// Takes four bytes as "41  42  43  44  " and writes "41 42 43 44 ", and two characters behind it.
char* WriteFourBytes(char* out, __m128i spaced)
{
    const __m128i even = _mm_and_si128(spaced, _mm_set1_epi64x(0xFFFFFF));
    const __m128i odd = _mm_and_si128(_mm_srli_epi64(spaced, 8), _mm_set1_epi64x(0xFFFFFF000000));
    const __m128i text = _mm_or_si128(even, odd);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), text);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 6), _mm_unpackhi_epi64(text, text));
    return out + 12;
}

char* WriteBlock(char* out, const unsigned char* bytes)
{
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
    const __m128i half = _mm_set1_epi8(0x0F);
    const __m128i blanks = _mm_set1_epi8(' ');
    const __m128i high = ToDigits(_mm_and_si128(_mm_srli_epi16(block, 4), half));
    const __m128i low = ToDigits(_mm_and_si128(block, half));
    const __m128i pairs[] = {_mm_unpacklo_epi8(high, low), _mm_unpackhi_epi8(high, low)};
    for (const __m128i& eight : pairs)
    {
        out = WriteFourBytes(out, _mm_unpacklo_epi16(eight, blanks));
        out = WriteFourBytes(out, _mm_unpackhi_epi16(eight, blanks));
    }
    return out - 1;
}

} // namespace

char* ToHexStringA(char* out, const unsigned char* bytes, std::size_t count)
{
    if (count == kBlockSize)
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
