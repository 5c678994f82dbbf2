// The rows of a hex dump below a message, written straight into the log line.
#ifndef QV_HEXDUMP_H
#define QV_HEXDUMP_H

#include <cstddef>

class HexDump
{
public:
    // No bytes are dumped from a null buffer or for a count of 0 or less. The bytes must outlive the dump.
    HexDump(const unsigned char* buffer, int length)
        : m_bytes(buffer), m_count(buffer == nullptr || length <= 0 ? 0 : static_cast<std::size_t>(length))
    {
    }

    static constexpr std::size_t kBytesPerRow = 16;
    static constexpr std::size_t kMaxRowLength = 3 * kBytesPerRow - 1 + 3 + kBytesPerRow + 1; // hex, " : ", text, line feed

    std::size_t GetByteCount() const { return m_count; }

    // Without bytes one empty row, which is a line feed.
    std::size_t GetRowCount() const { return m_count == 0 ? 1 : (m_count + kBytesPerRow - 1) / kBytesPerRow; }

    // Length of all rows with their line feeds.
    std::size_t GetLength() const { return m_count == 0 ? 1 : GetRowCount() * (kMaxRowLength - kBytesPerRow) + m_count; }

    // Write one row with its line feed, and all. They return the end of what they wrote.
    char* ComposeRow(char* out, std::size_t row) const;
    char* Compose(char* out) const;

private:
    const unsigned char* m_bytes;
    std::size_t m_count;
};

#endif
