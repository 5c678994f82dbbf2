// What the fuzzers share: a folder of their own, the log in it, the text of one entry read back.
#ifndef TESTS_FUZZ_FUZZLOG_H
#define TESTS_FUZZ_FUZZLOG_H

#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "support/TemporaryFolder.h"

#include <cstdio>
#include <cstdlib>
#include <string>

// Ends the run, so that the fuzzer keeps the input.
#define FUZZ_CHECK(condition)                                                                                               \
    do                                                                                                                      \
    {                                                                                                                       \
        if (!(condition))                                                                                                   \
        {                                                                                                                   \
            std::fprintf(stderr, "%s(%d): not so: %s\n", __FILE__, __LINE__, #condition);                                   \
            std::abort();                                                                                                   \
        }                                                                                                                   \
    } while (false)

// In memory: made once, emptied for each input by those who need it.
struct FuzzFolder : TemporaryFolder
{
    FuzzFolder() : TemporaryFolder("/dev/shm") {}
};

inline void SetStrategy(ZelvoReaderLoggingStrategy strategy, unsigned int maxFileSize)
{
    LoggingSettings settings = {0, 0, 100, strategy, maxFileSize, 0};
    SetLoggingOptions(&settings);
}

// Starts an empty log for one entry. The source marks where its text begins.
inline constexpr const char* kMark = "|>";

inline void StartEntry(const FuzzFolder& folder)
{
    SetStrategy(LOGGING_STRATEGY_OVERWRITE, 0);
    InitialiseLogging(true, ZR_LOG_DEBUG_HIGH, 1, (folder / "fuzz.log").c_str());
}

inline std::string ReadEntry(const FuzzFolder& folder)
{
    ShutdownLogging();
    const std::string entry = ReadFile(folder / "fuzz.log");
    const std::size_t mark = entry.find(kMark);
    FUZZ_CHECK(mark != std::string::npos);
    FUZZ_CHECK(entry.back() == '\n');
    return entry.substr(mark + 2, entry.size() - mark - 3);
}

#endif
