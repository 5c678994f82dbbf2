#include "ErrorHandlerDll/FixedText.h"

#include "ErrorHandlerDll/ErrnoKeeper.h"

#include <cstdio>
#include <cstring>

namespace
{

// Length of the sequence that starts with `lead`; 0 for a byte that continues one.
std::size_t GetUtf8SequenceLength(unsigned char lead) noexcept
{
    if (lead < 0x80)
    {
        return 1;
    }
    if (lead < 0xC0)
    {
        return 0;
    }
    return lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
}

} // namespace

std::size_t CutUtf8(const char* text, std::size_t length) noexcept
{
    constexpr std::size_t kLongestIncomplete = 3;
    for (std::size_t back = 1; back <= kLongestIncomplete && back <= length; ++back)
    {
        const std::size_t sequenceLength = GetUtf8SequenceLength(static_cast<unsigned char>(text[length - back]));
        if (sequenceLength > 0)
        {
            return sequenceLength > back ? length - back : length;
        }
    }
    return length;
}

void CopyFixedText(char* field, std::size_t size, const char* text) noexcept
{
    std::size_t length = 0;
    if (text != nullptr)
    {
        length = strnlen(text, size);
        if (length == size)
        {
            length = CutUtf8(text, size - 1);
        }
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

int FormatTemplate(char* text, std::size_t size, const char* messageTemplate, ...) noexcept
{
    va_list arguments;
    va_start(arguments, messageTemplate);
    const int length = FormatTemplateV(text, size, messageTemplate, arguments);
    va_end(arguments);
    return length;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // that is what a template is
int FormatTemplateV(char* text, std::size_t size, const char* messageTemplate, va_list& arguments) noexcept
{
    const ErrnoKeeper keeper;
    va_list copy;
    va_copy(copy, arguments);
    const int length = std::vsnprintf(text, size, messageTemplate, copy);
    va_end(copy);
    if (length < 0)
    {
        text[0] = '\0';
    }
    else if (static_cast<std::size_t>(length) >= size)
    {
        text[CutUtf8(text, size - 1)] = '\0';
    }
    return length;
}
#pragma GCC diagnostic pop
