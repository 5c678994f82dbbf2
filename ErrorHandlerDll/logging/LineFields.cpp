#include "ErrorHandlerDll/logging/LineFields.h"

#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <cstdio>

namespace
{

constexpr std::string_view kLevelFields[] = {"ERROR      - ", "WARNING    - ", "DEBUG_LOW  - ", "DEBUG_HIGH - "};

struct ThreadField
{
    std::uint32_t m_threadId; // the thread that the text is of; 0 while there is none
    int m_length;
    char m_text[kThreadFieldSize];
};

thread_local ThreadField tThreadField = {};

[[gnu::noinline]] void MakeThreadField(std::uint32_t threadId)
{
    tThreadField.m_length =
        std::snprintf(tThreadField.m_text, kThreadFieldSize, "[ThreadID: %d] - ", static_cast<int>(threadId));
    tThreadField.m_threadId = threadId;
}

} // namespace

std::string_view GetLogLevelAsString(int level, char* buffer)
{
    const auto index = static_cast<unsigned int>(level);
    if (index < std::size(kLevelFields))
    {
        return kLevelFields[index];
    }
    const int length = std::snprintf(buffer, kLevelFieldSize, "Level %-4d - ", level);
    return {buffer, static_cast<std::size_t>(length)};
}

std::string_view GetThreadField()
{
    const std::uint32_t threadId = ZelvoWinAPI::GetCurrentThreadId();
    if (tThreadField.m_threadId != threadId)
    {
        MakeThreadField(threadId);
    }
    return {tThreadField.m_text, static_cast<std::size_t>(tThreadField.m_length)};
}
