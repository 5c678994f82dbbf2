#include "ErrorHandlerDll/unwind/DwarfCursor.h"

namespace Unwind
{
namespace
{

constexpr unsigned kValueBits = 64;
constexpr unsigned kMaxLebBits = 70; // ten bytes; more is no number

} // namespace

std::uint64_t DwarfCursor::TakeLeb(bool isSigned) noexcept
{
    std::uint64_t value = 0;
    for (unsigned bits = 0; bits < kMaxLebBits;)
    {
        const auto byte = Take<std::uint8_t>();
        value |= bits < kValueBits ? std::uint64_t{byte & 0x7fu} << bits : 0;
        bits += 7;
        if ((byte & 0x80) == 0)
        {
            const bool isNegative = isSigned && (byte & 0x40) != 0 && bits < kValueBits;
            return isNegative ? value | ~std::uint64_t{0} << bits : value;
        }
    }
    m_failed = true;
    return 0;
}

std::uintptr_t DwarfCursor::TakeEncoded(std::uint8_t encoding, std::uintptr_t dataBase) noexcept
{
    const std::uintptr_t here = m_position;
    std::uintptr_t value = 0;
    switch (encoding & PointerEncoding::kFormatMask)
    {
    case PointerEncoding::kAbsolute:
    case PointerEncoding::kUnsigned8:
    case PointerEncoding::kSigned8:
        value = Take<std::uint64_t>();
        break;
    case PointerEncoding::kUnsigned4:
        value = Take<std::uint32_t>();
        break;
    case PointerEncoding::kSigned4:
        value = static_cast<std::uintptr_t>(std::int64_t{Take<std::int32_t>()});
        break;
    default:
        m_failed = true;
    }
    switch (encoding & ~PointerEncoding::kFormatMask)
    {
    case PointerEncoding::kAbsolute:
        return value;
    case PointerEncoding::kPositionRelative:
        return value + here;
    case PointerEncoding::kDataRelative:
        return value + dataBase;
    default:
        m_failed = true;
        return 0;
    }
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
