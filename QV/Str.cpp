#include "QV/Str.h"

#include <cstddef>
#include <cstdio>

namespace QV::Str
{

int GetFormattedLength(const char* format, va_list& arguments)
{
    return FormatArgs(nullptr, 0, format, arguments);
}

int FormatArgs(char* destination, int capacity, const char* format, va_list& arguments)
{
    va_list copy;
    va_copy(copy, arguments);
    const int length = std::vsnprintf(destination, static_cast<std::size_t>(capacity), format, copy);
    va_end(copy);
    return length;
}

} // namespace QV::Str
