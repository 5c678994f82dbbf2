// What the fuzzers share: a folder of their own, the log in it, the text of one entry read back.
#ifndef TESTS_FUZZ_FUZZLOG_H
#define TESTS_FUZZ_FUZZLOG_H

#include "ErrorHandlerDll/ErrorHandlerDll.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
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

// Made once, emptied for each input by those who need it, removed at the end.
class FuzzFolder
{
public:
    FuzzFolder()
    {
        std::string name = std::filesystem::exists("/dev/shm") ? "/dev/shm/fuzz.XXXXXX" : "/tmp/fuzz.XXXXXX";
        m_path = mkdtemp(name.data());
    }
    ~FuzzFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    FuzzFolder(const FuzzFolder&) = delete;
    FuzzFolder& operator=(const FuzzFolder&) = delete;

    const std::string& Path() const { return m_path; }
    void Empty() const
    {
        for (const auto& entry : std::filesystem::directory_iterator(m_path))
        {
            std::filesystem::remove_all(entry.path());
        }
    }

private:
    std::string m_path;
};

inline std::string ReadAll(const std::string& path)
{
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

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
    InitialiseLogging(true, ZR_LOG_DEBUG_HIGH, 1, (folder.Path() + "/fuzz.log").c_str());
}

inline std::string ReadEntry(const FuzzFolder& folder)
{
    ShutdownLogging();
    const std::string entry = ReadAll(folder.Path() + "/fuzz.log");
    const std::size_t mark = entry.find(kMark);
    FUZZ_CHECK(mark != std::string::npos);
    FUZZ_CHECK(entry.back() == '\n');
    return entry.substr(mark + 2, entry.size() - mark - 3);
}

#endif
