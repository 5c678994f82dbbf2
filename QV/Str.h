// The two halves of printf-style formatting: measure, then format into a buffer of the measured size. Both work on a copy of
// the argument list, so the same list serves both passes.
#ifndef QV_STR_H
#define QV_STR_H

#include <cstdarg>

namespace QV::Str
{

// Characters that the formatted text has, without its NUL; negative when the format fails.
[[gnu::format(printf, 1, 0)]] int GetFormattedLength(const char* format, va_list& arguments);

// Writes the formatted text with its NUL, `capacity` bytes at the most: an argument that another thread makes longer between
// the passes is cut.
//   returns as GetFormattedLength, so a first try at a buffer of any size also measures
[[gnu::format(printf, 3, 0)]] int FormatArgs(char* destination, int capacity, const char* format, va_list& arguments);

} // namespace QV::Str

#endif
