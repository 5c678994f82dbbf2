// Takes the numbers of unwind tables one after the other. A failed read gives 0 and is remembered: callers check once, at
// the end of what belongs together.
#ifndef ERRORHANDLERDLL_UNWIND_DWARFCURSOR_H
#define ERRORHANDLERDLL_UNWIND_DWARFCURSOR_H

#include "ErrorHandlerDll/unwind/MemoryReader.h"

#include <cstdint>

namespace Unwind
{

class DwarfCursor
{
public:
    // [position, end) is what may be read.
    DwarfCursor(MemoryReader& reader, std::uintptr_t position, std::uintptr_t end) noexcept
        : m_reader(reader), m_position(position), m_end(end)
    {
    }

    template <class T>
    T Take() noexcept
    {
        T value{};
        if (m_failed || m_position > m_end || m_end - m_position < sizeof(T) || !m_reader.Read(m_position, value))
        {
            m_failed = true;
            return T{};
        }
        m_position += sizeof(T);
        return value;
    }

    // In LEB128.
    std::uint64_t TakeUnsigned() noexcept { return TakeLeb(false); }
    std::int64_t TakeSigned() noexcept { return static_cast<std::int64_t>(TakeLeb(true)); }

    // A pointer in the encoding that the tables name (DW_EH_PE_*), of those that linkers write for this processor;
    // `dataBase` is what data-relative ones count from.
    std::uintptr_t TakeEncoded(std::uint8_t encoding, std::uintptr_t dataBase) noexcept;

    void Skip(std::uint64_t size) noexcept;
    void MoveTo(std::uintptr_t position) noexcept { m_position = position; }
    bool HasMore() const noexcept { return !m_failed && m_position < m_end; }
    bool HasFailed() const noexcept { return m_failed; }
    std::uintptr_t Position() const noexcept { return m_position; }

private:
    std::uint64_t TakeLeb(bool isSigned) noexcept;

    MemoryReader& m_reader;
    std::uintptr_t m_position;
    std::uintptr_t m_end;
    bool m_failed = false;
};

namespace PointerEncoding
{
constexpr std::uint8_t kAbsolute = 0x00;
constexpr std::uint8_t kUnsigned4 = 0x03;
constexpr std::uint8_t kUnsigned8 = 0x04;
constexpr std::uint8_t kSigned4 = 0x0b;
constexpr std::uint8_t kSigned8 = 0x0c;
constexpr std::uint8_t kPositionRelative = 0x10;
constexpr std::uint8_t kDataRelative = 0x30;
constexpr std::uint8_t kFormatMask = 0x0f;
} // namespace PointerEncoding

} // namespace Unwind

#endif
