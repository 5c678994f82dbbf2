// Settings in any order from two threads that log: no line is refused or torn, none of what was logged is missing, and the
// settings in force are those of one of the calls.
#include "FuzzLog.h"

#include <fuzzer/FuzzedDataProvider.h>
#include <map>
#include <thread>
#include <vector>

namespace
{

constexpr std::size_t kMaxSteps = 40;

struct Step
{
    int m_kind;
    unsigned int m_value;
};

std::vector<Step> Steps(FuzzedDataProvider& data)
{
    std::vector<Step> steps(data.ConsumeIntegralInRange<std::size_t>(0, kMaxSteps));
    for (Step& step : steps)
    {
        step = {data.ConsumeIntegralInRange(0, 6), data.ConsumeIntegral<unsigned int>()};
    }
    return steps;
}

// Emptying files would lose lines as it should: that strategy has a value that counts as appending here.
constexpr unsigned int kStrategies[] = {0, 2, 3, 0xFFFFFFFFu};

void Run(const std::vector<Step>& steps, const FuzzFolder& folder, int thread)
{
    static constexpr const char* kNames[] = {"a.log", "b", "c.7.log", "d..log"};
    int number = 0;
    for (const Step& step : steps)
    {
        LoggingSettings settings = {};
        switch (step.m_kind)
        {
        case 0:
            InitialiseLogging(true, ZR_LOG_DEBUG_HIGH, 1, (folder / kNames[step.m_value % 4]).c_str());
            break;
        case 1:
            settings.flushInterval = step.m_value >> 8;
            settings.strategy = static_cast<ZelvoReaderLoggingStrategy>(kStrategies[step.m_value % 4]);
            settings.maxFileSize = step.m_value % 5000;
            settings.reserved = step.m_value;
            SetLoggingOptions(&settings);
            break;
        case 2:
            GetLoggingOptions(&settings);
            FUZZ_CHECK(settings.logLevel == ZR_LOG_DEBUG_HIGH && settings.logMask == 1);
            break;
        case 3:
            ShutdownLogging();
            break;
        case 4:
            FUZZ_CHECK(GetLogFilename() != nullptr);
            break;
        default:
            FUZZ_CHECK(LogFormatted(0, 1, "", "|>%d %d<", thread, number++));
            break;
        }
    }
}

std::map<std::string, int> CountEntries(const FuzzFolder& folder)
{
    std::map<std::string, int> entries;
    for (const auto& file : std::filesystem::directory_iterator(folder / ""))
    {
        std::istringstream lines(ReadFile(file.path()));
        for (std::string line; std::getline(lines, line);)
        {
            const std::size_t mark = line.find(kMark);
            FUZZ_CHECK(mark != std::string::npos && line.back() == '<' && line.rfind(kMark) == mark);
            ++entries[line.substr(mark)];
        }
    }
    return entries;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size)
{
    static const FuzzFolder folder;
    FuzzedDataProvider data(bytes, size);
    const std::vector<Step> steps[] = {Steps(data), Steps(data)};
    folder.Empty();
    SetStrategy(LOGGING_STRATEGY_APPEND, 0);
    InitialiseLogging(true, ZR_LOG_DEBUG_HIGH, 1, (folder / "start.log").c_str());
    std::thread other([&] { Run(steps[1], folder, 1); });
    Run(steps[0], folder, 0);
    other.join();
    ShutdownLogging();

    std::size_t logged = 0;
    for (const std::vector<Step>& thread : steps)
    {
        for (const Step& step : thread)
        {
            logged += step.m_kind > 4 ? 1 : 0;
        }
    }
    const std::map<std::string, int> entries = CountEntries(folder);
    FUZZ_CHECK(entries.size() == logged);
    for (const auto& [entry, count] : entries)
    {
        FUZZ_CHECK(count == 1);
    }
    return 0;
}
