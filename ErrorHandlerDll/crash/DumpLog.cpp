#include "ErrorHandlerDll/crash/DumpLog.h"

#include "ErrorHandlerDll/ErrorHandlerDll.h"
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
    if (!gLogIsDamaged.load(std::memory_order_relaxed) && !DumpScope::Run([=] { LogMessage(level, mask, source, text); }))
    {
        gLogIsDamaged.store(true, std::memory_order_relaxed);
    }
}

} // namespace Crash
