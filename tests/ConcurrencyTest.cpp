// The log under many threads, in forked children, and at the beginning and the end of the process.
#include "ErrorHandlerDll/ExceptionHandler.h"
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

std::vector<std::jthread> StartWriters(int writers, int count)
{
    std::vector<std::jthread> threads;
    for (int writer = 0; writer < writers; ++writer)
    {
        threads.emplace_back(LogCounting, writer, count);
    }
    return threads;
}

// Every line of LogCounting is there once, those of one writer are in their order and of one thread, which has no other.
void ExpectEveryLineOnce(const std::vector<LogLine>& lines, const std::map<int, int>& counts)
{
    std::map<int, int> next;
    std::map<int, int> writerOf;
    for (const LogLine& line : lines)
    {
        const int writer = std::stoi(line.m_text);
        EXPECT_EQ(std::to_string(1000000 + next[writer]++).substr(1), line.m_text.substr(4)) << "writer " << writer;
        EXPECT_EQ(writer, writerOf.emplace(line.m_thread, writer).first->second);
    }
    EXPECT_EQ(counts, next);
    EXPECT_EQ(counts.size(), writerOf.size());
}

// What a host's static object calls too late: registered before the library's objects are made, it runs when they are gone.
std::atomic<bool> gCallsAtExit{false};
constexpr int kLateCallsWereHarmless = 42;

void CallAtExit()
{
    if (!gCallsAtExit)
    {
        return;
    }
    LoggingSettings settings = {};
    GetLoggingOptions(&settings);
    SetLoggingOptions(&settings);
    InitialiseLogging(true, 3, 1, "late.log");
    const bool isDropped = *GetLogFilename() == '\0' && LogMessage(0, 1, "", "late");
    ShutdownLogging();
    char text[100];
    int length = sizeof text;
    GetErrorString(ZR_ERROR_ALREADY_INITIALISED, text, &length);
    const bool isCatalogue = std::string(text) == "Already initialised" && ResetErrorMessages() &&
                             !AddCustomErrorMessage(ZR_CUSTOM_ERROR_FIRST, "X");
    _exit(isDropped && isCatalogue ? kLateCallsWereHarmless : 1);
}

// A host's static object that logs before the library's objects are constructed.
bool gIsEarlyLineWritten = false;

[[gnu::constructor(101)]] void LogEarly()
{
    const TemporaryFolder folder;
    InitialiseLogging(true, ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, (folder / "early.log").c_str());
    LogMessage(ZR_LOG_ERROR, 1, "", "early");
    ShutdownLogging();
    gIsEarlyLineWritten = ReadFile(GetLogFilename()).ends_with(" - early\n");
    std::atexit(CallAtExit);
}

} // namespace

TEST_F(ConcurrencyTest, ThreadsAtFullSpeedLoseAndTearNothing)
{
    for (const int strategy : {LOGGING_STRATEGY_APPEND, LOGGING_STRATEGY_FILE_SIZE})
    {
        SetOptions(strategy, 50000);
        StartWriters(4, 2000).clear(); // joins them
        ShutdownLogging();
        const std::vector<LogLine> lines = ParseLog(strategy == LOGGING_STRATEGY_APPEND ? OnDisk() : SeriesOnDisk());
        ExpectEveryLineOnce(lines, {{0, 2000}, {1, 2000}, {2, 2000}, {3, 2000}});
        EXPECT_TRUE(std::ranges::is_sorted(lines, {}, &LogLine::m_stamp));
    }
}

TEST_F(ConcurrencyTest, ForkedChildrenLogBesideTheirParent)
{
    constexpr int kCount = 3000;
    LogCounting(12, 1); // buffered, must not be written by a child too
    std::vector<std::jthread> threads = StartWriters(2, kCount);
    std::map<int, int> counts = {{0, kCount}, {1, kCount}, {12, 1}};
    for (int child = 2; child < 12; ++child)
    {
        EXPECT_EQ(0, RunChild([child] { return LogCounting(child, 150), ShutdownLogging(), 0; }));
        counts[child] = 150;
    }
    threads.clear();
    ShutdownLogging();
    ExpectEveryLineOnce(ParseLog(OnDisk()), counts);
}

TEST_F(ConcurrencyTest, AForkInsideABlockLeavesTheSectionToTheChild)
{
    const auto forkInside = [](const char*, void* child)
    {
        *static_cast<pid_t*>(child) = fork();
        LogCounting(*static_cast<pid_t*>(child) == 0 ? 1 : 0, 1);
    };
    pid_t child = -1;
    ExceptionHandler::GenericHandleException("", ZR_ERROR_UNKNOWN, "", false, forkInside, &child);
    if (child == 0)
    {
        alarm(30);
        std::thread(LogCounting, 2, 1).join();
        ShutdownLogging();
        execl("/bin/true", "true", nullptr);
    }
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    ShutdownLogging();
    const std::vector<LogLine> lines = ParseLog(OnDisk()); // behind the line that heads the block
    ExpectEveryLineOnce({lines.begin() + 1, lines.end()}, {{0, 1}, {1, 1}, {2, 1}});
}

TEST(EarlyHost, LogsBeforeTheLibraryIsInitialised)
{
    EXPECT_TRUE(gIsEarlyLineWritten);
}

TEST_F(ConcurrencyTest, CallsAfterTheEndAreHarmless)
{
    const auto body = [this]
    {
        std::filesystem::current_path(m_folder / "");
        gCallsAtExit = true;
        SetErrorMessage(ZR_ERROR_ALREADY_INITIALISED, "override");
        Log("in time");
        std::exit(0);
        return 0;
    };
    EXPECT_EQ(kLateCallsWereHarmless, RunChild(body));
    EXPECT_EQ(std::vector<std::string>{"in time"}, ClosedTexts());
    EXPECT_FALSE(std::filesystem::exists(m_folder / "late.log"));
}
