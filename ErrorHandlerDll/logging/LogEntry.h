// Compose: one entry of the log, from its parts to the bytes of the file. All fields are measured first, so that the entry
// is composed where it will be written from, by copies of fixed size. That costs no allocation and one copy.
#ifndef ERRORHANDLERDLL_LOGGING_LOGENTRY_H
#define ERRORHANDLERDLL_LOGGING_LOGENTRY_H

#include "ErrorHandlerDll/logging/LineClock.h"
#include "QV/HexDump.h"
#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <cstdint>
#include <cstring>
#include <iterator>
#include <string_view>

// "[ThreadID: 4711] - " of one thread.
struct ThreadField
{
    static constexpr std::size_t kSize = 32; // room for "[ThreadID: -2147483648] - " and its NUL

    std::uint32_t m_threadId; // 0 while there is no text
    std::uint32_t m_length;
    char m_text[kSize];
};

[[gnu::tls_model("initial-exec")]] extern constinit thread_local ThreadField tThreadField;

class LogEntry
{
    static constexpr std::size_t kLevelSize = 24; // room for "Level -2147483648 - " and its NUL

public:
    // Texts and bytes must outlive it. With a dump the message stands above the rows.
    LogEntry(int level, std::string_view source, std::string_view message, const HexDump* dump = nullptr)
        : m_level(GetLogLevelAsString(level)), m_thread(GetThreadField()), m_source(source), m_message(message), m_dump(dump)
    {
    }

    std::size_t GetLength() const
    {
        const std::size_t length =
            LineClock::kStampLength + m_level.size() + m_thread.m_length + m_source.size() + m_message.size() + 1;
        return m_dump == nullptr ? length : length + m_dump->GetLength();
    }
    std::string_view GetSource() const { return m_source; }
    std::string_view GetMessage() const { return m_message; }
    const HexDump* GetDump() const { return m_dump; }

    // The fields before the source, with what their copies write behind them.
    static constexpr std::size_t kMaxExcess = ThreadField::kSize;
    static constexpr std::size_t kMaxPrefixSize = LineClock::kStampLength + kLevelSize + kMaxExcess;

    // Writes level and thread behind the stamp, up to kMaxExcess bytes past their end: the next field overwrites them, or
    // the buffer has room for them.
    char* ComposePrefix(char* out) const
    {
        std::memcpy(out, m_level.data(), kLevelSize);
        out += m_level.size();
        std::memcpy(out, m_thread.m_text, ThreadField::kSize);
        return out + m_thread.m_length;
    }

    // Writes all behind the stamp.
    void Compose(char* out) const
    {
        out = ComposePrefix(out);
        out += m_source.copy(out, m_source.size());
        out += m_message.copy(out, m_message.size());
        *out = '\n';
        if (m_dump != nullptr)
        {
            m_dump->Compose(out + 1);
        }
    }

private:
    static constexpr std::size_t kNamedLevelLength = 13;
    static constexpr char kNamedLevels[][kLevelSize] = {"ERROR      - ", "WARNING    - ", "DEBUG_LOW  - ", "DEBUG_HIGH - "};

    // "ERROR      - " and so on for the four named levels, "Level 5    - " for all others.
    std::string_view GetLogLevelAsString(int level)
    {
        const auto index = static_cast<unsigned int>(level);
        return index < std::size(kNamedLevels) ? std::string_view(kNamedLevels[index], kNamedLevelLength)
                                               : FormatNumberedLevel(level);
    }
    std::string_view FormatNumberedLevel(int level);

    // Kept per thread and made anew in a forked child.
    static const ThreadField& GetThreadField()
    {
        const std::uint32_t threadId = ZelvoWinAPI::GetCurrentThreadId();
        if (tThreadField.m_threadId != threadId) [[unlikely]]
        {
            MakeThreadField(threadId);
        }
        return tThreadField;
    }
    static void MakeThreadField(std::uint32_t threadId);

    char m_levelBuffer[kLevelSize]; // of a level without a name
    std::string_view m_level;
    const ThreadField& m_thread;
    std::string_view m_source;
    std::string_view m_message;
    const HexDump* m_dump;
};

#endif
