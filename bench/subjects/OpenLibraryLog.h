// Switches the log of this library on in the way of the benchmarks.
#ifndef BENCH_SUBJECTS_OPENLIBRARYLOG_H
#define BENCH_SUBJECTS_OPENLIBRARYLOG_H

#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "bench/LogSubject.h"

inline void OpenLibraryLog(const std::string& path, std::size_t maxFileSize)
{
    LoggingSettings settings = {};
    settings.flushInterval = kLinesPerFlush - 1;
    settings.strategy = maxFileSize > 0 ? LOGGING_STRATEGY_FILE_SIZE : LOGGING_STRATEGY_APPEND;
    settings.maxFileSize = static_cast<std::uint32_t>(maxFileSize);
    InitialiseLogging(true, ZR_LOG_WARNING, 1, path.c_str());
    SetLoggingOptions(&settings);
}

#endif
