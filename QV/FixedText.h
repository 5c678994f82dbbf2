// Texts in fixed fields: bounded, terminated, never cut inside a UTF-8 sequence.
#ifndef QV_FIXEDTEXT_H
#define QV_FIXEDTEXT_H

#include <cstdarg>
#include <cstddef>
#include <string_view>

// Messages, locations and the last error: what a host sees of an error is never longer, its NUL included.
inline constexpr std::size_t kErrorTextSize = 512;

using ErrorText = char[kErrorTextSize];

// A null text from a host counts as the empty one.
inline std::string_view TextOrEmpty(const char* text)
{
    return text == nullptr ? std::string_view() : std::string_view(text);
}

// Fills all `size` bytes of the field: the text, cut when it must be, and zero bytes behind it. `text` may be null and may
// lie in the field itself.
void CopyFixedText(char* field, std::size_t size, const char* text) noexcept;

// Formats into `size` bytes; the text is cut when it must be.
//   returns the length of the whole text, or a negative value when the format fails: then the text is empty
[[gnu::format(printf, 3, 4)]] int FormatFixedText(char* text, std::size_t size, const char* format, ...) noexcept;

// The same for a message template, which is known only at run time: whoever raises or warns answers for the arguments.
int FormatTemplateV(char* text, std::size_t size, const char* messageTemplate, va_list& arguments) noexcept;

#endif
