// Whole lines of a dump that wait to be written together. One thread holds lines at a time; a signal handler that interrupts
// it, and a thread that ends the process, may come in between. Async-signal-safe.
#ifndef ERRORHANDLERDLL_LOGGING_HELDLINES_H
#define ERRORHANDLERDLL_LOGGING_HELDLINES_H

#include <atomic>
#include <cstddef>
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
        if (length > kSize || m_isInUse.exchange(true, std::memory_order_acquire))
        {
            return false;
        }
        const bool fits = length <= kSize - m_size;
        if (fits)
        {
            char* end = m_bytes + m_size;
            for (const std::string_view part : parts)
            {
                end += part.copy(end, part.size());
            }
            m_size += length;
        }
        m_isInUse.store(false, std::memory_order_release);
        return fits;
    }

    // Calls write(lines) unless there are none, or they are in use, and forgets them.
    template <class Write>
    void Take(const Write& write) noexcept
    {
        if (m_isInUse.exchange(true, std::memory_order_acquire))
        {
            return;
        }
        if (m_size > 0)
        {
            write(std::string_view(m_bytes, m_size));
            m_size = 0;
        }
        m_isInUse.store(false, std::memory_order_release);
    }

    // After a fault in one of the above that will not be returned to.
    void Recover() noexcept { m_isInUse.store(false, std::memory_order_release); }

private:
    std::atomic<bool> m_isInUse{false};
    std::size_t m_size = 0;
    char m_bytes[kSize] = {};
};

#endif
