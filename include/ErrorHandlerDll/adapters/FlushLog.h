// For the adapters of other logging libraries. C++17 on.
#ifndef ERRORHANDLERDLL_ADAPTERS_FLUSHLOG_H
#define ERRORHANDLERDLL_ADAPTERS_FLUSHLOG_H

#include "../ErrorHandlerDll.h"

#pragma GCC visibility push(hidden)

namespace ErrorHandlerDllDetail
{

// Puts all lines into the file. That closes it, and the next line opens it again: with LOGGING_STRATEGY_OVERWRITE this would
// empty it, so there nothing is done, and lines reach the file by the flush interval.
inline void FlushLog()
{
    LoggingSettings settings = {};
    GetLoggingOptions(&settings);
    if (settings.strategy != LOGGING_STRATEGY_OVERWRITE)
    {
        ShutdownLogging();
    }
}

} // namespace ErrorHandlerDllDetail

#pragma GCC visibility pop

#endif
