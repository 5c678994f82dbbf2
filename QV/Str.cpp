#include "QV/Str.h"

#include <cstdio>

namespace QV::Str
{

int GetFormattedLength(const char* format, va_list& arguments)
{
    char first;
    return FormatArgs(&first, sizeof first, format, arguments);
}

int FormatArgs(char* destination, std::size_t capacity, const char* format, va_list& arguments)
{
    va_list copy;
    va_copy(copy, arguments);
    const int length = std::vsnprintf(destination, capacity, format, copy);
    va_end(copy);
    if (length < 0)
    {
        destination[0] = '\0';
    }
    return length;
}

} // namespace QV::Str
