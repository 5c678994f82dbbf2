#include "QV/HexDump.h"

#include "QV/Convert.h"

#include <algorithm>
#include <string_view>

namespace
{

constexpr std::size_t kBytesPerRow = HexDump::kBytesPerRow;
constexpr std::size_t kHexColumnWidth = 3 * kBytesPerRow - 1;
constexpr std::string_view kColumnSeparator = " : ";

// '%' is shown as '.': a dump must stay harmless for a reader that takes lines for formats.
constexpr char Show(unsigned char byte)
{
    return byte >= 0x20 && byte <= 0x7E && byte != '%' ? static_cast<char>(byte) : '.';
}

// A function of its own, as compilers use vector instructions for a loop of fixed length over texts that do not overlap.
char* ComposeFullCharacterColumn(char* __restrict out, const unsigned char* __restrict bytes)
{
    for (std::size_t i = 0; i < kBytesPerRow; ++i)
    {
        out[i] = Show(bytes[i]);
    }
    return out + kBytesPerRow;
}

} // namespace

char* HexDump::ComposeRow(char* out, std::size_t row) const
{
    const unsigned char* const bytes = m_bytes + row * kBytesPerRow;
    const std::size_t count = std::min(m_count - row * kBytesPerRow, kBytesPerRow);
    if (count > 0)
    {
        char* const separator = out + kHexColumnWidth;
        std::fill(QV::Convert::ToHexStringA(out, bytes, count), separator, ' ');
        char* const text = separator + kColumnSeparator.copy(separator, kColumnSeparator.size());
        out = count == kBytesPerRow ? ComposeFullCharacterColumn(text, bytes)
                                    : std::transform(bytes, bytes + count, text, Show);
    }
    *out = '\n';
    return out + 1;
}

char* HexDump::Compose(char* out) const
{
    for (std::size_t row = 0; row < GetRowCount(); ++row)
    {
        out = ComposeRow(out, row);
    }
    return out;
}
