// What the machine allows: one lock, one reading of the clock, the text of the second kept, each character copied once, one
// write for 101 lines. No strategy, no error handling, no fork, no crash: a yardstick, not a logger.
#include "bench/LogSubject.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

constexpr std::size_t kBufferSize = 64 * 1024;
constexpr std::size_t kStampSize = 24;
constexpr int kLevel = 1;
constexpr char kLevelText[] = "WARNING    - ";

struct ThreadText
{
    ThreadText() : length(std::snprintf(text, sizeof text, "[ThreadID: %d] - ", static_cast<int>(syscall(SYS_gettid)))) {}
    char text[32];
    int length;
};

char* Put(char* out, const char* text, std::size_t length)
{
    std::memcpy(out, text, length);
    return out + length;
}

char* PutHex(char* out, const unsigned char* bytes, int count)
{
    static const auto pairs = []
    {
        std::vector<char> table(512);
        for (unsigned i = 0; i < 256; ++i)
        {
            table[2 * i] = "0123456789ABCDEF"[i / 16];
            table[2 * i + 1] = "0123456789ABCDEF"[i % 16];
        }
        return table;
    }();
    for (int row = 0; row < count; row += 16)
    {
        *out++ = '\n';
        const int end = row + 16 < count ? row + 16 : count;
        std::memset(out, ' ', 50);
        for (int i = row; i < end; ++i)
        {
            std::memcpy(out + 3 * (i - row), &pairs[std::size_t{2} * bytes[i]], 2);
        }
        out[48] = ':';
        out += 50;
        for (int i = row; i < end; ++i)
        {
            *out++ = bytes[i] >= 0x20 && bytes[i] <= 0x7E && bytes[i] != '%' ? static_cast<char>(bytes[i]) : '.';
        }
    }
    return out;
}

} // namespace

// Not in the unnamed namespace: the compiler would fit LineAt to the only arguments that it is called with.
class LimitLog final : public LogAdapter<LimitLog>
{
public:
    LimitLog()
    {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ADAPTIVE_NP);
        pthread_mutex_init(&m_mutex, &attributes);
    }

    const char* Name() const override { return "limit"; }

    void Open(const std::string& path, std::size_t maxFileSize) override
    {
        m_path = path;
        m_maxFileSize = maxFileSize == 0 ? SIZE_MAX : maxFileSize;
        m_number = 0;
        m_lines = 0;
        OpenNext();
    }
    void Close() override
    {
        Flush();
        close(m_descriptor);
    }

    [[gnu::noinline]] void Line(const std::string& message)
    {
        if (IsWritten(kLevel, 1))
        {
            Write(kSource, message.c_str(), nullptr, 0);
        }
    }
    [[gnu::noinline]] void Formatted(const char* text, int number, unsigned int bits)
    {
        char message[1024];
        std::snprintf(message, sizeof message, "%s %d %08x", text, number, bits);
        Write(kSource, message, nullptr, 0);
    }
    void Filtered(const std::string& message) { LineAt(kLevel + 1, 1, message.c_str()); }
    [[gnu::noinline]] void Hex(const unsigned char* bytes, int count) { Write(kSource, "buffer", bytes, count); }

private:
    [[gnu::noinline]] bool LineAt(int level, unsigned int mask, const char* message)
    {
        if (IsWritten(level, mask))
        {
            Write(kSource, message, nullptr, 0);
        }
        return true;
    }
    bool IsWritten(int level, unsigned int mask) const
    {
        return level <= m_level.load(std::memory_order_relaxed) && (mask & m_mask.load(std::memory_order_relaxed)) != 0;
    }
    void OpenNext()
    {
        const std::string name = m_path.substr(0, m_path.size() - 3) + std::to_string(++m_number) + ".log";
        m_descriptor = open(name.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
        m_fileSize = 0;
    }
    void Flush()
    {
        static_cast<void>(!write(m_descriptor, m_buffer, m_used));
        m_used = 0;
    }
    char* PutStamp(char* out)
    {
        timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        if (now.tv_sec != m_second)
        {
            std::tm local;
            localtime_r(&now.tv_sec, &local);
            std::snprintf(m_stamp, sizeof m_stamp, "%02d/%02d/%02d %02d:%02d:%02d.000 - ", local.tm_mday, local.tm_mon + 1,
                          local.tm_year % 100, local.tm_hour, local.tm_min, local.tm_sec);
            m_second = now.tv_sec;
        }
        const auto milliseconds = static_cast<unsigned>(now.tv_nsec / 1000000);
        Put(out, m_stamp, kStampSize);
        out[18] = static_cast<char>('0' + milliseconds / 100);
        out[19] = static_cast<char>('0' + milliseconds / 10 % 10);
        out[20] = static_cast<char>('0' + milliseconds % 10);
        return out + kStampSize;
    }
    void Write(const char* source, const char* message, const unsigned char* bytes, int count)
    {
        static thread_local const ThreadText tThread;
        const std::size_t sourceLength = std::strlen(source);
        const std::size_t messageLength = std::strlen(message);
        const std::size_t rows = (static_cast<std::size_t>(count) + 15) / 16;
        const std::size_t room = 128 + sourceLength + messageLength + 67 * rows;
        pthread_mutex_lock(&m_mutex);
        if (m_used + room > kBufferSize)
        {
            Flush();
        }
        char* const start = m_buffer + m_used;
        char* out = Put(PutStamp(start), kLevelText, sizeof kLevelText - 1);
        out = Put(out, tThread.text, static_cast<std::size_t>(tThread.length));
        out = Put(out, source, sourceLength);
        out = PutHex(Put(out, message, messageLength), bytes, count);
        *out++ = '\n';
        const auto length = static_cast<std::size_t>(out - start);
        m_used += length;
        m_fileSize += length;
        if (++m_lines == kLinesPerFlush)
        {
            Flush();
            m_lines = 0;
        }
        if (m_fileSize + length >= m_maxFileSize)
        {
            Close();
            OpenNext();
        }
        pthread_mutex_unlock(&m_mutex);
    }

    pthread_mutex_t m_mutex;
    std::atomic<int> m_level{kLevel};
    std::atomic<unsigned int> m_mask{1};
    std::string m_path;
    std::size_t m_maxFileSize = 0;
    std::size_t m_fileSize = 0;
    int m_number = 0;
    int m_descriptor = -1;
    int m_lines = 0;
    std::time_t m_second = 0;
    char m_stamp[96] = {}; // for what the compiler thinks that years may be
    std::size_t m_used = 0;
    char m_buffer[kBufferSize + 67 * 4200]; // room for a whole dump of 64 KiB behind the lines
};

namespace
{

const Registration<LimitLog> gRegistration;

} // namespace
