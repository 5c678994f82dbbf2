// The timestamp field of log lines: local date and time to the millisecond, "16/11/26 15:38:45.007 - ".
#ifndef ERRORHANDLERDLL_LOGGING_LINECLOCK_H
#define ERRORHANDLERDLL_LOGGING_LINECLOCK_H

#include <atomic>
#include <cstddef>
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
        __builtin_memcpy(out, m_text, kStampLength);
        WriteMilliseconds(out, now.tv_nsec);
        return out + kStampLength;
    }

    // Learns the zone, so that the first dump has it even if no line was logged before.
    void WarmUp() { SetSecond(std::time(nullptr)); }

    // The same stamp without the lock of the zone's data, which the interrupted thread may hold: the calendar is computed
    // here, with the offset to UTC of the last line that was logged. A dump long after it, in a process that logs nothing
    // else, may miss a change to or from summer time. Async-signal-safe.
    char* WriteStampInEmergency(char* out) const;

private:
    static constexpr std::size_t kMillisecondsAt = 18;

    static void WriteMilliseconds(char* stamp, long nanoseconds)
    {
        const auto milliseconds = static_cast<unsigned int>(nanoseconds / 1000000);
        stamp[kMillisecondsAt] = static_cast<char>('0' + milliseconds / 100);
        stamp[kMillisecondsAt + 1] = static_cast<char>('0' + milliseconds / 10 % 10);
        stamp[kMillisecondsAt + 2] = static_cast<char>('0' + milliseconds % 10);
    }
    void SetSecond(std::time_t second);

    // The text of this second is kept: the local time asks the file system for the zone each time, which costs more than all
    // the rest of a line.
    std::time_t m_second = -1;
    std::atomic<long> m_utcOffset{0}; // seconds
    char m_text[kStampLength + 1] = "00/00/00 00:00:00.000 - ";
};

#endif
