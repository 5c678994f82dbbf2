#ifndef ERRORHANDLERDLL_CRASH_READABLEPAGES_H
#define ERRORHANDLERDLL_CRASH_READABLEPAGES_H

#include <cstddef>
#include <cstdint>

namespace Crash
{

// Pages of permanent memory that have been seen to be readable.
class ReadablePages
{
public:
    void Forget() noexcept
    {
        for (std::uintptr_t& page : m_pages)
        {
            page = 0;
        }
    }
    bool Contain(std::uintptr_t page) const noexcept { return m_pages[page % kCount] == page; }
    void Add(std::uintptr_t page) noexcept { m_pages[page % kCount] = page; }

private:
    static constexpr std::size_t kCount = 32;

    std::uintptr_t m_pages[kCount] = {};
};

} // namespace Crash

#endif
