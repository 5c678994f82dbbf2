#include "QV/FixedText.h"

#include "QV/ErrnoScope.h"
#include "QV/Str.h"

#include <cstring>

namespace
{

bool ContinuesUtf8(char byte) noexcept
{
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

// How many of the first `length` bytes to keep so that the text does not end inside a UTF-8 sequence, when one goes on
// behind them. Bytes that are not UTF-8 count as characters of their own.
std::size_t CutUtf8(const char* text, std::size_t length) noexcept
{
    std::size_t start = length;
    while (start > 0 && ContinuesUtf8(text[start - 1]))
    {
        --start;
    }
    const unsigned char first = start == 0 ? 0 : static_cast<unsigned char>(text[--start]);
    const std::size_t sequenceLength = first < 0xC0 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    return start + sequenceLength > length ? start : length;
}

} // namespace

void CopyFixedText(char* field, std::size_t size, const char* text) noexcept
{
    std::size_t length = 0;
    if (text != nullptr)
    {
        length = strnlen(text, size);
        length = length < size ? length : ContinuesUtf8(text[size - 1]) ? CutUtf8(text, size - 1) : size - 1;
        std::memmove(field, text, length);
    }
    std::memset(field + length, 0, size - length);
}

int FormatFixedText(char* text, std::size_t size, const char* format, ...) noexcept
{
    va_list arguments;
    va_start(arguments, format);
    const int length = FormatTemplateV(text, size, format, arguments);
    va_end(arguments);
    return length;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // templates are known at run time only
int FormatTemplateV(char* text, std::size_t size, const char* messageTemplate, va_list& arguments) noexcept
{
    const ErrnoScope errnoScope;
    const int length = QV::Str::FormatArgs(text, size, messageTemplate, arguments);
    if (length >= 0 && static_cast<std::size_t>(length) >= size)
    {
        text[CutUtf8(text, size - 1)] = '\0'; // whether a sequence goes on behind the cut is not known
    }
    return length;
}
#pragma GCC diagnostic pop
