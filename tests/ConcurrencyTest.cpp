// The log under threads and in a fork, and at the beginning and the end of the process.
#include "ErrorHandlerDll/ExceptionHandler.h"
#include "support/LogTest.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <thread>

namespace
{

using ConcurrencyTest = LogTest;

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

TEST_F(ConcurrencyTest, StampsAscend)
{
    const auto log = []
    {
        for (int i = 0; i < 5000; ++i)
        {
            Log("x");
        }
    };
    std::jthread other(log);
    log();
    other.join();
    ShutdownLogging();
    EXPECT_TRUE(std::ranges::is_sorted(ParseLog(OnDisk()), {}, &LogLine::m_stamp));
}

TEST_F(ConcurrencyTest, AForkInsideABlockLeavesTheSectionToTheChild)
{
    const auto forkInside = [](const char*, void* child)
    {
        *static_cast<pid_t*>(child) = fork();
        Log(*static_cast<pid_t*>(child) == 0 ? "child" : "parent");
    };
    pid_t child = -1;
    ExceptionHandler::GenericHandleException("", ZR_ERROR_UNKNOWN, "", false, forkInside, &child);
    if (child == 0)
    {
        alarm(30);
        std::thread([] { Log("thread"); }).join();
        ShutdownLogging();
        execl("/bin/true", "true", nullptr);
    }
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    std::vector<std::string> texts = ClosedTexts();
    std::ranges::sort(texts);
    EXPECT_EQ((std::vector<std::string>{"----------------------", "child", "parent", "thread"}), texts);
}

TEST_F(ConcurrencyTest, CallsBeforeTheBeginningAndAfterTheEndAreHarmless)
{
    EXPECT_TRUE(gIsEarlyLineWritten);
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
