// The log under many threads, in forked children, and at the beginning and the end of the process.
#include "ErrorHandlerDll/Internal.h"
#include "support/LogTest.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <map>
#include <thread>

namespace
{

using ConcurrencyTest = LogTest;

void LogCounting(int writer, int count)
{
    for (int i = 0; i < count; ++i)
    {
        LogFormatted(ZR_LOG_ERROR, 1, "", "%03d %06d", writer, i);
    }
}

std::vector<std::thread> StartWriters(int writers, int count)
{
    std::vector<std::thread> threads;
    for (int writer = 0; writer < writers; ++writer)
    {
        threads.emplace_back(LogCounting, writer, count);
    }
    return threads;
}

void Join(std::vector<std::thread>& threads)
{
    for (std::thread& thread : threads)
    {
        thread.join();
    }
}

// Every line of LogCounting is there once, those of one writer are in their order and of one thread.
void ExpectEveryLineOnce(const std::vector<LogLine>& lines, const std::map<int, int>& counts)
{
    std::map<int, int> next;
    std::map<int, int> threads;
    for (const LogLine& line : lines)
    {
        const int writer = std::stoi(line.m_text);
        EXPECT_EQ(std::to_string(1000000 + next[writer]++).substr(1), line.m_text.substr(4)) << "writer " << writer;
        EXPECT_EQ(threads.emplace(writer, line.m_thread).first->second, line.m_thread);
    }
    EXPECT_EQ(counts, next);
}

// A host's static object that logs too late: registered before the logger is made, so that it runs when that is gone.
std::atomic<bool> gLogAtExit{false};
constexpr int kLateLinesWereDropped = 42;

void LogAtExit()
{
    if (gLogAtExit)
    {
        LoggingSettings settings = {};
        GetLoggingOptions(&settings);
        SetLoggingOptions(&settings);
        InitialiseLogging(true, 3, 1, "late.log");
        const bool dropped = *GetLogFilename() == '\0' && LogMessage(0, 1, "", "late") &&
                             LogFormatted(0, 1, "", "%s", "late") && LogMessageAndBufferAsHex(0, 1, "", "late", nullptr, 0);
        ShutdownLogging();
        _exit(dropped ? kLateLinesWereDropped : 1);
    }
}

// A host's static object that logs before the library's objects are constructed.
bool gEarlyLineIsWritten = false;

[[gnu::constructor(101)]] void LogEarly()
{
    const TemporaryFolder folder;
    InitialiseLogging(true, ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, (folder / "early.log").c_str());
    LogMessage(ZR_LOG_ERROR, 1, "", "early");
    ShutdownLogging();
    gEarlyLineIsWritten = ReadFile(GetLogFilename()).ends_with(" - early\n");
    std::atexit(LogAtExit);
}

} // namespace

TEST_F(ConcurrencyTest, ThreadsAtFullSpeedLoseAndTearNothing)
{
    constexpr int kWriters = 4;
    constexpr int kCount = 2000;
    for (const int strategy : {LOGGING_STRATEGY_APPEND, LOGGING_STRATEGY_FILE_SIZE})
    {
        SetOptions(strategy, 50000);
        std::vector<std::thread> threads = StartWriters(kWriters, kCount);
        Join(threads);
        ShutdownLogging();
        std::string text;
        for (int number = 1; std::filesystem::exists(m_folder / ("app." + std::to_string(number) + ".log")); ++number)
        {
            text += OnDisk("app." + std::to_string(number) + ".log");
        }
        const std::vector<LogLine> lines = ParseLog(strategy == LOGGING_STRATEGY_APPEND ? OnDisk() : text);
        ExpectEveryLineOnce(lines, {{0, kCount}, {1, kCount}, {2, kCount}, {3, kCount}});
        EXPECT_TRUE(std::is_sorted(lines.begin(), lines.end(),
                                   [](const LogLine& a, const LogLine& b) { return a.m_stamp < b.m_stamp; }));
    }
}

TEST_F(ConcurrencyTest, ForkedChildrenLogBesideTheirParent)
{
    constexpr int kCount = 3000;
    Log("buffered"); // must not be written by a child too
    std::vector<std::thread> threads = StartWriters(2, kCount);
    std::map<int, int> counts = {{0, kCount}, {1, kCount}};
    std::map<int, pid_t> children;
    for (int child = 2; child < 12; ++child)
    {
        const auto body = [child]
        {
            LogCounting(child, 150);
            ShutdownLogging();
            return 0;
        };
        EXPECT_EQ(0, RunChild(body, &children[child]));
        counts[child] = 150;
    }
    Join(threads);
    ShutdownLogging();
    std::vector<LogLine> lines = ParseLog(OnDisk());
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ("buffered", lines.front().m_text);
    lines.erase(lines.begin());
    ExpectEveryLineOnce(lines, counts);
    for (const LogLine& line : lines)
    {
        const auto child = children.find(std::stoi(line.m_text));
        EXPECT_TRUE(child == children.end() || child->second == line.m_thread) << line.m_text;
    }
}

TEST_F(ConcurrencyTest, AForkInsideAGroupLeavesTheSectionToTheChild)
{
    const auto body = []
    {
        LogCounting(1, 1);
        gFileLogger.LeaveCriticalSection();
        std::thread(LogCounting, 2, 1).join();
        ShutdownLogging();
        return 0;
    };
    gFileLogger.EnterCriticalSection();
    LogCounting(0, 1);
    EXPECT_EQ(0, RunChild(body));
    gFileLogger.LeaveCriticalSection();
    ShutdownLogging();
    ExpectEveryLineOnce(ParseLog(OnDisk()), {{0, 1}, {1, 1}, {2, 1}});
}

TEST(EarlyHost, LogsBeforeTheLibraryIsInitialised)
{
    EXPECT_TRUE(gEarlyLineIsWritten);
}

TEST_F(ConcurrencyTest, LinesAfterTheEndAreDropped)
{
    const auto body = [this]
    {
        std::filesystem::current_path(m_folder / "");
        gLogAtExit = true;
        Log("in time");
        std::exit(0);
        return 0;
    };
    EXPECT_EQ(kLateLinesWereDropped, RunChild(body));
    EXPECT_EQ(std::vector<std::string>{"in time"}, ClosedTexts());
    EXPECT_FALSE(std::filesystem::exists(m_folder / "late.log"));
}
