// A message with the hex dump of a buffer below it, written straight into the log line.
#ifndef ERRORHANDLERDLL_HEXDUMP_H
#define ERRORHANDLERDLL_HEXDUMP_H

#include <cstddef>
#include <string_view>

class HexDump
{
public:
    // Both texts must outlive the dump. No bytes are dumped from a null buffer or for a count of 0 or less.
    HexDump(std::string_view message, const unsigned char* buffer, int length);

    // Length of the text in characters, and the text itself without a NUL; see FileLogger::Write.
    std::size_t size() const;
    std::size_t copy(char* out, std::size_t size) const;

private:
    std::string_view m_message;
    const unsigned char* m_bytes;
    std::size_t m_count;
};

#endif
