#include "ErrorHandlerDll/crash/DumpLog.h"

#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/Internal.h"
#include "ErrorHandlerDll/crash/DumpScope.h"

#include <atomic>

namespace Crash
{

namespace
{

constinit std::atomic<bool> gLogIsDamaged = false;

} // namespace

void LogLine(const char* text, const char* source)
{
    LogLine(ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, source, text);
}

void LogLine(int level, unsigned int mask, const char* source, const char* text)
{
    const auto log = [=]
    {
        LogMessage(level, mask, source, text);
    };
    if (gLogIsDamaged.load(std::memory_order_relaxed) || DumpScope::Run(log))
    {
        return;
    }
    gFileLogger.ForgetStrategy(); // lies on the heap, which is what is damaged as a rule; an open file does without
    if (!DumpScope::Run(log))
    {
        gLogIsDamaged.store(true, std::memory_order_relaxed);
    }
}

} // namespace Crash
