#include "ErrorHandlerDll/logging/LineFields.h"

#include <atomic>
#include <cstdio>

constinit thread_local ThreadField tThreadField = {};

std::string_view FormatNumberedLevel(int level, char* buffer)
{
    const int length = std::snprintf(buffer, kLevelFieldSize, "Level %-4d - ", level);
    return {buffer, static_cast<std::size_t>(length)};
}

// The id is set last: a signal handler that comes in between makes the text itself.
void MakeThreadField(std::uint32_t threadId)
{
    const int length = std::snprintf(tThreadField.m_text, kThreadFieldSize, "[ThreadID: %d] - ", static_cast<int>(threadId));
    tThreadField.m_length = static_cast<std::uint32_t>(length);
    std::atomic_signal_fence(std::memory_order_release);
    tThreadField.m_threadId = threadId;
}
