#include "ErrorHandlerDll/HexDump.h"

#include "QV/Convert.h"

#include <algorithm>
#include <emmintrin.h>
#include <string_view>

namespace
{

constexpr std::size_t kBytesPerRow = HexDump::kBytesPerRow;
constexpr std::size_t kHexColumnWidth = 3 * kBytesPerRow - 1;
constexpr std::string_view kColumnSeparator = " : ";

// '%' is shown as '.': a dump must stay harmless for a reader that takes lines for formats.
constexpr bool IsShown(unsigned char byte)
{
    return byte >= 0x20 && byte <= 0x7E && byte != '%';
}

// Sixteen characters at once; a byte from 0x80 up is negative here.
char* ComposeFullCharacterColumn(char* out, const unsigned char* bytes)
{
    const __m128i row = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
    const __m128i isShown =
        _mm_andnot_si128(_mm_cmpeq_epi8(row, _mm_set1_epi8('%')),
                         _mm_and_si128(_mm_cmpgt_epi8(row, _mm_set1_epi8(0x1F)), _mm_cmplt_epi8(row, _mm_set1_epi8(0x7F))));
    const __m128i text = _mm_or_si128(_mm_and_si128(isShown, row), _mm_andnot_si128(isShown, _mm_set1_epi8('.')));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), text);
    return out + kBytesPerRow;
}

char* WriteSeparator(char* out)
{
    return out + kColumnSeparator.copy(out, kColumnSeparator.size());
}

} // namespace

char* HexDump::ComposeRow(char* out, std::size_t row) const
{
    const unsigned char* const bytes = m_bytes + row * kBytesPerRow;
    const std::size_t count = m_count - row * kBytesPerRow;
    if (count >= kBytesPerRow)
    {
        out = WriteSeparator(QV::Convert::ToHexStringA(out, bytes, kBytesPerRow));
        out = ComposeFullCharacterColumn(out, bytes);
    }
    else if (count > 0)
    {
        char* const columnEnd = out + kHexColumnWidth;
        std::fill(QV::Convert::ToHexStringA(out, bytes, count), columnEnd, ' ');
        out = std::transform(bytes, bytes + count, WriteSeparator(columnEnd),
                             [](unsigned char byte) { return IsShown(byte) ? static_cast<char>(byte) : '.'; });
    }
    *out = '\n';
    return out + 1;
}

char* HexDump::Compose(char* out) const
{
    const std::size_t rows = GetRowCount();
    for (std::size_t row = 0; row < rows; ++row)
    {
        out = ComposeRow(out, row);
    }
    return out;
}
