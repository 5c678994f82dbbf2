// Whole lines of a dump that wait to be written together: one by one, their writes are a quarter of the time from the fault
// to the end of the process. One thread holds lines at a time; a signal handler that interrupts it, a thread that dumps
// without the section, and one that ends the process may come in between. Async-signal-safe.
#ifndef ERRORHANDLERDLL_LOGGING_HELDLINES_H
#define ERRORHANDLERDLL_LOGGING_HELDLINES_H

#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

class HeldLines
{
public:
    // What a pipe takes in one piece.
    static constexpr std::size_t kSize = 4096;

    // Copies a line of several parts behind the others.
    //   returns false when there is no room, or the lines are in use right now
    bool Append(std::span<const std::string_view> parts) noexcept
    {
        std::size_t length = 0;
        for (const std::string_view part : parts)
        {
            length += part.size();
        }
        if (length > kSize || !Enter())
        {
            return false;
        }
        const bool fits = m_end <= kSize && length <= kSize - m_end;
        if (fits)
        {
            char* end = m_bytes + m_end;
            for (const std::string_view part : parts)
            {
                end += part.copy(end, part.size());
            }
            m_end += length;
        }
        Leave();
        return fits;
    }

    // Appends the line, if need be after the others have been taken.
    //   returns false when it is longer than there is room at all, or the lines are in use
    template <class Write>
    bool Hold(std::span<const std::string_view> parts, const Write& write) noexcept
    {
        if (Append(parts))
        {
            return true;
        }
        Take(write);
        return Append(parts);
    }

    // Hands the lines to write(text), which returns how many bytes of them it has written, until all are gone, or until it
    // writes none: the rest is lost then. Does nothing while the lines are in use.
    template <class Write>
    void Take(const Write& write) noexcept
    {
        if (!Enter())
        {
            return;
        }
        while (m_start < m_end && m_end <= kSize)
        {
            const std::ptrdiff_t count = write(std::string_view(m_bytes + m_start, m_end - m_start));
            if (count <= 0)
            {
                break;
            }
            m_start += static_cast<std::size_t>(count); // at once: a jump out of here must not write them again
        }
        m_start = 0;
        m_end = 0;
        Leave();
    }

    // After a fault of this thread in one of the above, to which it will not return.
    void Recover() noexcept
    {
        if (m_user.load(std::memory_order_relaxed) == ZelvoWinAPI::GetCurrentThreadId())
        {
            Leave();
        }
    }

    // In a forked child: the lines are the parent's to write.
    void Forget() noexcept
    {
        m_start = 0;
        m_end = 0;
        Leave();
    }

private:
    static constexpr std::uint32_t kNobody = 0;

    bool Enter() noexcept
    {
        std::uint32_t user = kNobody;
        return m_user.compare_exchange_strong(user, ZelvoWinAPI::GetCurrentThreadId(), std::memory_order_acquire,
                                              std::memory_order_relaxed);
    }
    void Leave() noexcept { m_user.store(kNobody, std::memory_order_release); }

    std::atomic<std::uint32_t> m_user{kNobody};
    std::size_t m_start = 0; // what lies before it has been written
    std::size_t m_end = 0;
    char m_bytes[kSize] = {};
};

#endif
