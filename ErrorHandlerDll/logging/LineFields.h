// The level and thread fields of log lines, and how to copy them: by copies of fixed size, which are two instructions each.
// They may write a few bytes too many, which the fields behind them in the line cover.
#ifndef ERRORHANDLERDLL_LOGGING_LINEFIELDS_H
#define ERRORHANDLERDLL_LOGGING_LINEFIELDS_H

#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string_view>

// What one copy moves.
constexpr std::size_t kCopySize = 16;

// Room for "Level -2147483648 - " and its NUL.
constexpr std::size_t kLevelFieldSize = 24;

// Room for "[ThreadID: -2147483648] - " and its NUL.
constexpr std::size_t kThreadFieldSize = 32;

constexpr std::size_t kNamedLevelLength = 13;
constexpr char kNamedLevels[][kCopySize] = {"ERROR      - ", "WARNING    - ", "DEBUG_LOW  - ", "DEBUG_HIGH - "};

std::string_view FormatNumberedLevel(int level, char* buffer);

// The level field: "ERROR      - " and so on for the four named levels, "Level 5    - " for all others, which are formatted
// into `buffer` (kLevelFieldSize bytes).
inline std::string_view GetLogLevelAsString(int level, char* buffer)
{
    const auto index = static_cast<unsigned int>(level);
    return index < std::size(kNamedLevels) ? std::string_view(kNamedLevels[index], kNamedLevelLength)
                                           : FormatNumberedLevel(level, buffer);
}

inline char* CopyLevelField(char* out, std::string_view field)
{
    std::memcpy(out, field.data(), kCopySize);
    if (field.size() > kCopySize)
    {
        std::memcpy(out + kCopySize, field.data() + kCopySize, kLevelFieldSize - kCopySize);
    }
    return out + field.size();
}

// "[ThreadID: 4711] - " of one thread.
struct ThreadField
{
    std::uint32_t m_threadId; // 0 while there is no text
    std::uint32_t m_length;   // at least kCopySize
    char m_text[kThreadFieldSize];
};

[[gnu::tls_model("initial-exec")]] extern constinit thread_local ThreadField tThreadField;

void MakeThreadField(std::uint32_t threadId);

// The calling thread's field; kept per thread and made anew in a forked child.
inline const ThreadField& GetThreadField()
{
    const std::uint32_t threadId = ZelvoWinAPI::GetCurrentThreadId();
    if (tThreadField.m_threadId != threadId) [[unlikely]]
    {
        MakeThreadField(threadId);
    }
    return tThreadField;
}

inline char* CopyThreadField(char* out, const ThreadField& field)
{
    std::memcpy(out, field.m_text, kCopySize);
    char* const end = out + field.m_length;
    std::memcpy(end - kCopySize, field.m_text + field.m_length - kCopySize, kCopySize);
    return end;
}

#endif
