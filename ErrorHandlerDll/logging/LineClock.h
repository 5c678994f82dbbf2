// The timestamp field of log lines: local date and time to the millisecond, "16/11/26 15:38:45.007 - ".
#ifndef ERRORHANDLERDLL_LOGGING_LINECLOCK_H
#define ERRORHANDLERDLL_LOGGING_LINECLOCK_H

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
        return WriteStamp(out, static_cast<unsigned int>(now.tv_nsec / kNanosecondsPerMillisecond));
    }

private:
    static constexpr long kNanosecondsPerMillisecond = 1000000;
    static constexpr std::size_t kMillisecondsAt = 18;

    char* WriteStamp(char* out, unsigned int milliseconds) const
    {
        __builtin_memcpy(out, m_text, kStampLength);
        out[kMillisecondsAt] = static_cast<char>('0' + milliseconds / 100);
        out[kMillisecondsAt + 1] = static_cast<char>('0' + milliseconds / 10 % 10);
        out[kMillisecondsAt + 2] = static_cast<char>('0' + milliseconds % 10);
        return out + kStampLength;
    }
    void SetSecond(std::time_t second);

    // The text of this second is kept: the local time asks the file system for the zone each time, which costs more than all
    // the rest of a line.
    std::time_t m_second = -1;
    char m_text[kStampLength + 1] = "00/00/00 00:00:00.000 - ";
};

#endif
