// printf-style formatting.
#ifndef QV_STR_H
#define QV_STR_H

#include <cstdarg>
#include <cstddef>

namespace QV::Str
{

// Returns the number of characters of the formatted text, without its NUL; negative when the format fails. The list is left
// unconsumed.
[[gnu::format(printf, 1, 0)]] int GetFormattedLength(const char* format, va_list& arguments);

// Writes the formatted text with its NUL, `capacity` bytes at the most; a text that does not fit is cut, a format that fails
// gives the empty text. The list is left unconsumed.
//   returns the characters that the whole text has, without its NUL; negative when the format fails
[[gnu::format(printf, 3, 0)]] int FormatArgs(char* destination, std::size_t capacity, const char* format,
                                             va_list& arguments);

} // namespace QV::Str

#endif
