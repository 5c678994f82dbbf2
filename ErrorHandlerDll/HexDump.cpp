#include "ErrorHandlerDll/HexDump.h"

#include "QV/Convert.h"

#include <algorithm>
#include <emmintrin.h>

namespace
{

constexpr std::size_t kBytesPerRow = 16;
constexpr std::size_t kHexColumnWidth = 3 * kBytesPerRow - 1;
constexpr std::string_view kColumnSeparator = " : ";

// '%' is shown as '.': a dump must stay harmless for a reader that takes lines for formats.
constexpr bool IsShown(unsigned char byte)
{
    return byte >= 0x20 && byte <= 0x7E && byte != '%';
}

// Sixteen characters at once; a byte from 0x80 up is negative here.
char* WriteFullCharacterColumn(char* out, const unsigned char* bytes)
{
    const __m128i row = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
    const __m128i printable =
        _mm_and_si128(_mm_cmpgt_epi8(row, _mm_set1_epi8(0x1F)), _mm_cmplt_epi8(row, _mm_set1_epi8(0x7F)));
    const __m128i shown = _mm_andnot_si128(_mm_cmpeq_epi8(row, _mm_set1_epi8('%')), printable);
    const __m128i characters = _mm_or_si128(_mm_and_si128(shown, row), _mm_andnot_si128(shown, _mm_set1_epi8('.')));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), characters);
    return out + kBytesPerRow;
}

char* WriteRow(char* out, const unsigned char* bytes, std::size_t count)
{
    char* const columnEnd = out + kHexColumnWidth;
    char* const hexEnd = QV::Convert::ToHexStringA(out, bytes, count);
    std::fill(hexEnd, columnEnd, ' ');
    out = columnEnd + kColumnSeparator.copy(columnEnd, kColumnSeparator.size());
    if (count == kBytesPerRow)
    {
        return WriteFullCharacterColumn(out, bytes);
    }
    return std::transform(bytes, bytes + count, out,
                          [](unsigned char byte) { return IsShown(byte) ? static_cast<char>(byte) : '.'; });
}

} // namespace

HexDump::HexDump(std::string_view message, const unsigned char* buffer, int length)
    : m_message(message), m_bytes(buffer), m_count(buffer == nullptr || length <= 0 ? 0 : static_cast<std::size_t>(length))
{
}

std::size_t HexDump::size() const
{
    const std::size_t rows = (m_count + kBytesPerRow - 1) / kBytesPerRow;
    const std::size_t lineFeeds = rows > 0 ? rows : 1; // one behind the message, one between each two rows
    return m_message.size() + lineFeeds + rows * (kHexColumnWidth + kColumnSeparator.size()) + m_count;
}

std::size_t HexDump::copy(char* out, std::size_t size) const
{
    out += m_message.copy(out, m_message.size());
    *out++ = '\n';
    for (std::size_t done = 0; done < m_count; done += kBytesPerRow)
    {
        if (done > 0)
        {
            *out++ = '\n';
        }
        out = WriteRow(out, m_bytes + done, std::min(kBytesPerRow, m_count - done));
    }
    return size;
}
