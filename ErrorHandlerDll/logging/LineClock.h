// Stamp: the timestamp field of log lines, local date and time to the millisecond, "16/11/26 15:38:45.007 - ".
#ifndef ERRORHANDLERDLL_LOGGING_LINECLOCK_H
#define ERRORHANDLERDLL_LOGGING_LINECLOCK_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>

class LineClock
{
public:
    static constexpr std::size_t kStampLength = 24;

    // Writes the stamp of this moment, kStampLength characters without a NUL, and returns its end. Seconds and milliseconds
    // come from one reading of the clock, so that stamps never run backwards while the clock does not.
    char* WriteStamp(char* out)
    {
        timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        if (now.tv_sec != m_second) [[unlikely]]
        {
            SetSecond(now.tv_sec);
        }
        if (static_cast<unsigned long>(now.tv_nsec - m_millisecond) >= kNanosecondsPerMillisecond)
        {
            WriteMilliseconds(m_text, now.tv_nsec);
            m_millisecond = now.tv_nsec - now.tv_nsec % kNanosecondsPerMillisecond;
        }
        __builtin_memcpy(out, m_text, kStampLength);
        return out + kStampLength;
    }

    // The same without the lock of the zone's data, with the offset to UTC that was learned last.
    // Async-signal-safe.
    char* WriteStampSignalSafe(char* out) const;

    // Tells that this is an ordinary call, in no signal handler, and learns the zone, so that the first dump has it even if
    // no line was logged before.
    void WarmUp();

    // In a forked child, when another thread of its parent may have held the lock of the zone's data: it is never free
    // again.
    void ForgetZone() { m_isZoneLost = true; }

private:
    static constexpr std::size_t kMillisecondsAt = 18;
    static constexpr long kNanosecondsPerMillisecond = 1000000;

    static void WriteMilliseconds(char* stamp, long nanoseconds)
    {
        const auto milliseconds = static_cast<unsigned int>(nanoseconds / kNanosecondsPerMillisecond);
        stamp[kMillisecondsAt] = static_cast<char>('0' + milliseconds / 100);
        stamp[kMillisecondsAt + 1] = static_cast<char>('0' + milliseconds / 10 % 10);
        stamp[kMillisecondsAt + 2] = static_cast<char>('0' + milliseconds % 10);
    }
    void SetSecond(std::time_t second);
    bool MayAskForZone() const;
    void WriteSecond(char* stamp, std::time_t second) const; // by the offset that was learned last

    // The text of this second and millisecond is kept: the local time asks the file system for the zone each time, which
    // costs more than all the rest of a line, and a burst of lines has many in one millisecond.
    std::time_t m_second = -1;
    long m_millisecond = -kNanosecondsPerMillisecond; // its start within the second, in nanoseconds
    std::atomic<long> m_utcOffset{0};                 // seconds
    std::uint64_t m_usualMask = 0;                    // signals that the host's threads block as a rule
    bool m_isZoneLost = false;
    char m_text[kStampLength + 1] = "00/00/00 00:00:00.000 - ";
};

#endif
