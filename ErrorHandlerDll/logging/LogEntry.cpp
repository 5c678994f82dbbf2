#include "ErrorHandlerDll/logging/LogEntry.h"

#include <atomic>
#include <cstdio>

constinit thread_local ThreadField tThreadField = {};

std::string_view LogEntry::FormatNumberedLevel(int level)
{
    const int length = std::snprintf(m_levelBuffer, kLevelSize, "Level %-4d - ", level);
    return {m_levelBuffer, static_cast<std::size_t>(length)};
}

// The id is set last: a signal handler that comes in between makes the text itself.
void LogEntry::MakeThreadField(std::uint32_t threadId)
{
    const int length =
        std::snprintf(tThreadField.m_text, ThreadField::kSize, "[ThreadID: %d] - ", static_cast<int>(threadId));
    tThreadField.m_length = static_cast<std::uint32_t>(length);
    std::atomic_signal_fence(std::memory_order_release);
    tThreadField.m_threadId = threadId;
}
