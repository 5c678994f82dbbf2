#include "ErrorHandlerDll/unwind/DwarfCursor.h"

namespace Unwind
{
namespace
{

constexpr unsigned kValueBits = 64;
constexpr unsigned kMaxLebBits = 70; // ten bytes; more is no number

constexpr std::uint8_t kApplicationMask = 0x70;
constexpr std::uint8_t kPositionRelative = 0x10;
constexpr std::uint8_t kIndirect = 0x80;

} // namespace

std::uint64_t DwarfCursor::TakeLeb(unsigned& bits, bool& negative) noexcept
{
    std::uint64_t value = 0;
    std::uint8_t byte = 0;
    bits = 0;
    do
    {
        byte = Take<std::uint8_t>();
        if (bits < kValueBits)
        {
            value |= static_cast<std::uint64_t>(byte & 0x7f) << bits;
        }
        bits += 7;
    } while ((byte & 0x80) != 0 && bits < kMaxLebBits);
    negative = (byte & 0x40) != 0;
    return value;
}

std::uint64_t DwarfCursor::TakeUnsigned() noexcept
{
    unsigned bits;
    bool negative;
    return TakeLeb(bits, negative);
}

std::int64_t DwarfCursor::TakeSigned() noexcept
{
    unsigned bits;
    bool negative;
    std::uint64_t value = TakeLeb(bits, negative);
    if (negative && bits < kValueBits)
    {
        value |= ~std::uint64_t{0} << bits;
    }
    return static_cast<std::int64_t>(value);
}

std::uintptr_t DwarfCursor::TakeEncoded(std::uint8_t encoding, std::uintptr_t dataBase) noexcept
{
    const std::uintptr_t here = m_position;
    std::uintptr_t value = 0;
    switch (encoding & PointerEncoding::kFormatMask)
    {
    case PointerEncoding::kAbsolute:
    case 0x04:
    case 0x0c:
        value = Take<std::uint64_t>();
        break;
    case 0x01:
        value = TakeUnsigned();
        break;
    case 0x02:
        value = Take<std::uint16_t>();
        break;
    case 0x03:
        value = Take<std::uint32_t>();
        break;
    case 0x09:
        value = static_cast<std::uintptr_t>(TakeSigned());
        break;
    case 0x0a:
        value = static_cast<std::uintptr_t>(std::int64_t{Take<std::int16_t>()});
        break;
    case PointerEncoding::kSigned4:
        value = static_cast<std::uintptr_t>(std::int64_t{Take<std::int32_t>()});
        break;
    default:
        return Fail<std::uintptr_t>();
    }
    const std::uint8_t application = encoding & kApplicationMask;
    if (application == kPositionRelative)
    {
        value += here;
    }
    else if (application == PointerEncoding::kDataRelative)
    {
        value += dataBase;
    }
    else if (application != 0)
    {
        return Fail<std::uintptr_t>();
    }
    if ((encoding & kIndirect) != 0 && !m_reader.Read(value, value))
    {
        return Fail<std::uintptr_t>();
    }
    return value;
}

void DwarfCursor::Skip(std::uint64_t size) noexcept
{
    if (m_position > m_end || size > m_end - m_position)
    {
        m_failed = true;
    }
    else
    {
        m_position += size;
    }
}

} // namespace Unwind
