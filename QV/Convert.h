// Conversions of bytes to text.
#ifndef QV_CONVERT_H
#define QV_CONVERT_H

#include <cstddef>

namespace QV::Convert
{

// Writes the bytes as pairs of upper-case hex digits with a single blank between them: 3 * count - 1 characters, none for no
// bytes, no NUL. Returns the end of what it wrote; one character behind it may have been overwritten.
char* ToHexStringA(char* out, const unsigned char* bytes, std::size_t count);

} // namespace QV::Convert

#endif
