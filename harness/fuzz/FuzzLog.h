// What the fuzzers share: checks that end the run, a folder of their own in memory, one line logged in it.
#ifndef HARNESS_FUZZ_FUZZLOG_H
#define HARNESS_FUZZ_FUZZLOG_H

#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "tests/support/TemporaryFolder.h"

#include <algorithm>
#include <cstdio>
#include <fuzzer/FuzzedDataProvider.h>

inline void FuzzCheck(bool isRight, const char* what)
{
    if (!isRight)
    {
        std::fprintf(stderr, "not so: %s\n", what);
        std::abort(); // the fuzzer keeps the input
    }
}

// Without NULs, which end C strings.
inline std::string FuzzText(FuzzedDataProvider& data, std::size_t longest)
{
    std::string text = data.ConsumeRandomLengthString(longest);
    std::replace(text.begin(), text.end(), '\0', '0');
    return text;
}

// Opens the log, and closes it behind what `log` writes.
//   returns the name of the file
template <class Log>
std::string LogInto(const std::string& path, ZelvoReaderLoggingStrategy strategy, unsigned int limit, const Log& log)
{
    LoggingSettings settings = {0, 0, 100, strategy, limit, 0};
    SetLoggingOptions(&settings);
    InitialiseLogging(true, ZR_LOG_DEBUG_HIGH, 1, path.c_str());
    FuzzCheck(log(), "a line is written");
    ShutdownLogging();
    return GetLogFilename();
}

#endif
