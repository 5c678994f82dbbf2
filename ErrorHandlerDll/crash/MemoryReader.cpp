#include "ErrorHandlerDll/crash/MemoryReader.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace Crash
{

const unsigned char* MemoryReader::Fetch(std::uintptr_t address, std::size_t& available) noexcept
{
    const std::size_t offset = address % kPageSize;
    const std::uintptr_t start = address - offset;
    available = kPageSize - offset;
    if (m_addresses[m_latest] != start)
    {
        m_latest = static_cast<std::size_t>(std::find(m_addresses, std::end(m_addresses), start) - m_addresses);
        if (m_latest == kPageCount)
        {
            m_latest = m_oldest;
            m_oldest = (m_oldest + 1) % kPageCount;
            const bool isRead = ReadMemory(reinterpret_cast<const void*>(start), m_pages[m_latest], kPageSize);
            m_addresses[m_latest] = isRead ? start : kNoPage;
            if (!isRead)
            {
                return nullptr;
            }
        }
    }
    return m_pages[m_latest] + offset;
}

bool MemoryReader::Read(std::uintptr_t address, void* out, std::size_t size) noexcept
{
    auto* to = static_cast<unsigned char*>(out);
    while (size > 0)
    {
        std::size_t piece = 0;
        const unsigned char* bytes = Fetch(address, piece);
        if (bytes == nullptr)
        {
            return false;
        }
        piece = std::min(size, piece);
        std::memcpy(to, bytes, piece);
        to += piece;
        address += piece;
        size -= piece;
    }
    return true;
}

std::size_t MemoryReader::ReadString(std::uintptr_t address, char* out, std::size_t size) noexcept
{
    std::size_t length = 0;
    while (length + 1 < size)
    {
        std::size_t piece = 0;
        const unsigned char* const bytes = Fetch(address + length, piece);
        if (bytes == nullptr)
        {
            break;
        }
        piece = std::min(piece, size - 1 - length);
        const void* const end = std::memchr(bytes, '\0', piece);
        piece = end == nullptr ? piece : static_cast<std::size_t>(static_cast<const unsigned char*>(end) - bytes);
        std::memcpy(out + length, bytes, piece);
        length += piece;
        if (end != nullptr)
        {
            break;
        }
    }
    out[length] = '\0';
    return length;
}

} // namespace Crash
