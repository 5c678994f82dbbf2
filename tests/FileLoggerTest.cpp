// Entries: filter, fields, texts, settings, flushing; a fork; the beginning and the end of the process.
#include "ErrorHandlerDll/logging/ProcessLog.h"
#include "support/Faults.h"
#include "support/LogTest.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <thread>
#include <tuple>

namespace
{

using FileLoggerTest = LogTest;
using LogLifeTest = LogTest;

const wchar_t kNoCharacter[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};

bool LogHex(const char* message, const void* bytes, int length)
{
    return LogMessageAndBufferAsHex(0, 1, "S - ", message, static_cast<const unsigned char*>(bytes), length);
}

constexpr int kAllCallsWereHarmless = 42;

// A host's static object: it logs before the library's objects are made, and calls the library when they are gone.
struct HostObject
{
    HostObject()
    {
        const TemporaryFolder folder;
        InitialiseLogging(true, ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, (folder / "early.log").c_str());
        LogMessage(ZR_LOG_ERROR, 1, "", "early");
        ShutdownLogging();
        m_isEarlyLineWritten = ReadFile(GetLogFilename()).ends_with(" - early\n");
    }
    ~HostObject()
    {
        if (!m_isTested)
        {
            return;
        }
        InitialiseLogging(true, 3, 1, "late.log");
        const bool isDropped = *GetLogFilename() == '\0' && LogMessage(0, 1, "", "late");
        ShutdownLogging();
        char text[100];
        int length = sizeof text;
        GetErrorString(ZR_ERROR_ALREADY_INITIALISED, text, &length);
        const bool isCatalogue = std::string(text) == "Already initialised" && ResetErrorMessages() &&
                                 !AddCustomErrorMessage(ZR_CUSTOM_ERROR_FIRST, "X");
        _exit(m_isEarlyLineWritten && isDropped && isCatalogue ? kAllCallsWereHarmless : 1);
    }

    bool m_isEarlyLineWritten = false;
    bool m_isTested = false;
};

[[gnu::init_priority(101)]] HostObject gHostObject;

} // namespace

TEST_F(FileLoggerTest, FiltersByEnableLevelAndMask)
{
    const std::tuple<bool, int, unsigned int, int, unsigned int, std::ptrdiff_t> rows[] = {
        {false, 3, ~0u, 0, ~0u, 0},    {true, 3, ~0u, 3, 1, 4}, {true, 3, ~0u, 4, 1, 0},
        {true, 0, ~0u, INT_MIN, 1, 4}, {true, 3, 6, 0, 12, 4},  {true, 3, 0x80000000, 0, 0x7FFFFFFF, 0}};
    for (const auto& [enable, loggerLevel, loggerMask, level, mask, lines] : rows)
    {
        std::ofstream(m_folder / "app.log").close();
        InitialiseLogging(enable, loggerLevel, loggerMask, (m_folder / "app.log").c_str());
        EXPECT_TRUE(LogMessage(level, mask, "", "x") && LogFormatted(level, mask, "", "%d", 1));
        EXPECT_TRUE(LogMessageAndBufferAsHex(level, mask, "", "", nullptr, 0));
        ShutdownLogging();
        EXPECT_EQ(lines, std::ranges::count(OnDisk(), '\n')) << level;
    }
}

TEST_F(FileLoggerTest, StampsLinesOfAllThreadsWithTheLocalTime)
{
    const auto now = []
    {
        char text[32];
        const std::time_t second = std::time(nullptr);
        std::strftime(text, sizeof text, "%Y%m%d %H:%M:%S", std::localtime(&second));
        return std::string(text + 2);
    };
    const auto log = []
    {
        for (int i = 0; i < 5000; ++i)
        {
            Log("x");
        }
    };
    setenv("TZ", "AAA-05:30", 1); // a change of zone is noticed with the next second
    sleep(1);
    const std::string before = now();
    std::thread other(log);
    log();
    other.join();
    ShutdownLogging();
    const std::vector<LogLine> lines = ParseLog(OnDisk());
    EXPECT_LE(before, lines.front().m_stamp);
    EXPECT_GE(now() + ".999", lines.back().m_stamp);
    EXPECT_TRUE(std::ranges::is_sorted(lines, {}, &LogLine::m_stamp));
    unsetenv("TZ");
}

TEST_F(FileLoggerTest, WritesLevelThreadSourceAndText)
{
    const std::string thread = "[ThreadID: " + std::to_string(gettid()) + "] - ";
    const auto expect = [&](const std::string& level, const std::string& text, bool isWritten)
    {
        EXPECT_TRUE(isWritten);
        ShutdownLogging();
        EXPECT_EQ(level + thread + text + "\n", OnDisk().substr(24));
    };
    InitialiseLogging(true, INT_MAX, 1, (m_folder / "app.log").c_str());
    SetOptions(LOGGING_STRATEGY_OVERWRITE);
    expect("ERROR      - ", "", LogMessage(0, 1, nullptr, nullptr));
    expect("WARNING    - ", "S - 100%s", LogMessage(1, 1, "S - ", "100%s"));
    expect("DEBUG_LOW  - ", "S - m", LogMessage(2, 1, "S - ", "m"));
    expect("DEBUG_HIGH - ", "m", LogMessage(3, 1, "", "m"));
    expect("Level 4    - ", "m", LogMessage(4, 1, "", "m"));
    expect("Level -2147483648 - ", "m", LogMessage(INT_MIN, 1, "", "m"));

    const std::string longText(2000, 'x');
    const std::string error = "ERROR      - ";
    expect(error, "S - -3 items", LogFormatted(0, 1, "S - ", "%d items", -3));
    expect(error, "S - ", LogFormatted(0, 1, "S - ", nullptr));
    expect(error, "S - ", LogFormatted(0, 1, "S - ", "%2000d before %ls", 1, kNoCharacter));
    expect(error, longText.substr(0, 1023), LogFormatted(0, 1, "", "%.1023s", longText.c_str()));
    expect(error, longText.substr(0, 1024), LogFormatted(0, 1, "", "%.1024s", longText.c_str()));
    // Another thread may shorten an argument between the two passes; here the first pass does, with what it counts.
    std::string argument = longText;
    expect(error, longText.substr(0, 1500) + "\xD0\x07",
           LogFormatted(0, 1, "", "%s%n", argument.c_str(), reinterpret_cast<int*>(&argument[1500])));

    const char bytes[] = "Hello, world!%\x1F\x20\x7E\x7F";
    const std::string row = "S - m\n48 65 6C 6C 6F 2C 20 77 6F 72 6C 64 21 25 1F 20 : Hello, world!.. ";
    expect(error, "S - m\n", LogHex("m", bytes, INT_MIN));
    expect(error, "S - m\n", LogHex("m", nullptr, 5));
    expect(error, "S - \n7F" + std::string(45, ' ') + " : .", LogHex(nullptr, bytes + 17, 1));
    expect(error, row + "\n7E 7F" + std::string(42, ' ') + " : ~.", LogHex("m", bytes, 18));
    expect(error, "S - m\n20 77 6F 72 6C 64 21 25 1F 20 7E 7F 00 01 FE FF :  world!.. ~.....",
           LogHex("m", "\x20\x77\x6F\x72\x6C\x64\x21\x25\x1F\x20\x7E\x7F\x00\x01\xFE\xFF", 16));
}

TEST_F(FileLoggerTest, FlushesOneLineAfterTheInterval)
{
    for (const unsigned int interval : {0u, 100u, UINT_MAX})
    {
        SetOptions(LOGGING_STRATEGY_OVERWRITE, 0, interval);
        for (unsigned int line = 1; line <= 202; ++line)
        {
            Log("x");
            EXPECT_EQ(line - line % (interval + 1ull), ParseLog(OnDisk()).size()) << "interval " << interval;
        }
    }
}

TEST_F(FileLoggerTest, KeepsWholeLinesOnDiskBetweenFlushes)
{
    std::vector<std::string> texts(50, std::string(3000, 'x'));
    texts.insert(texts.end(), {std::string(200000, 'b'), "c", std::string(65536, 'd'), "e"}); // longer than the buffer
    for (const std::string& text : texts)
    {
        EXPECT_TRUE(Log(text));
        ParseLog(OnDisk());
    }
    EXPECT_EQ(texts, ClosedTexts());
}

TEST_F(FileLoggerTest, ReopensInTheWayOfTheStrategy)
{
    Log("1");
    SetOptions(7); // counts as appending
    Log("2");
    EXPECT_EQ((Texts{"1", "2"}), ClosedTexts());
    SetOptions(LOGGING_STRATEGY_OVERWRITE);
    Log("3");
    Start("app.log"); // the same name: the file stays open
    Log("4");
    Start("other.log"); // another name closes the file at once
    EXPECT_EQ((Texts{"3", "4"}), TextsOf(OnDisk()));
}

TEST_F(FileLoggerTest, GivesBackItsSettings)
{
    const auto otherStrategy = static_cast<ZelvoReaderLoggingStrategy>(7);
    for (const auto& [strategy, size] : {std::pair(LOGGING_STRATEGY_FILE_SIZE, 5000u), {otherStrategy, 0u}})
    {
        LoggingSettings set = {1, 2, UINT_MAX, strategy, 5000, 6};
        LoggingSettings got = {};
        SetLoggingOptions(&set);
        SetLoggingOptions(nullptr);
        GetLoggingOptions(nullptr);
        GetLoggingOptions(&got);
        EXPECT_EQ(std::tuple(ZR_LOG_DEBUG_HIGH, ZR_LOG_ALL_CATEGORIES, UINT_MAX, strategy, size, 6u),
                  std::tuple(got.logLevel, got.logMask, got.flushInterval, got.strategy, got.maxFileSize, got.reserved));
    }
}

TEST_F(FileLoggerTest, KeepsItsDescriptorFromChildrenAndStandardStreams)
{
    const int descriptor = fcntl(STDERR_FILENO, F_DUPFD, STDERR_FILENO + 1); // the log's, when this one is closed
    close(descriptor);
    const auto isKept = [=]
    {
        Log("x");
        return fcntl(descriptor, F_GETFD) == FD_CLOEXEC;
    };
    EXPECT_TRUE(isKept());
    const auto withoutStreams = [&]
    {
        ShutdownLogging();
        close_range(STDIN_FILENO, STDERR_FILENO, 0);
        return isKept() && fcntl(STDIN_FILENO, F_GETFD) < 0 ? 0 : 1;
    };
    EXPECT_EQ(0, RunChild(withoutStreams));
}

TEST_F(FileLoggerTest, LeavesErrnoAlone)
{
    Faults::gCalls.assign(2, {0, ENOSPC});
    errno = ELIBBAD;
    const std::vector<int> seen = {
        (Log("disk full"), errno),
        (ShutdownLogging(), errno),
        (LogFormatted(0, 1, "", "%ls", kNoCharacter), errno),
        (Start(std::string(5000, 'x')), Log("name too long") ? -1 : errno),
        (Start("missing/app.log"), errno),
        (SetOptions(LOGGING_STRATEGY_FILE_SIZE), errno),
        (LogHex("no folder", nullptr, 0), errno),
        (RunChild([] { return errno == ELIBBAD ? 0 : 1; }) == 0 ? errno : -1),
    };
    EXPECT_EQ(std::vector<int>(seen.size(), ELIBBAD), seen);
}

TEST_F(LogLifeTest, AForkInsideTheSectionLeavesItToTheChild)
{
    gFileLogger.EnterCriticalSection();
    const auto leaveAndLog = []
    {
        Log("child");
        gFileLogger.LeaveCriticalSection();
        std::thread([] { Log("its thread"); }).join();
        ShutdownLogging();
        return 0;
    };
    EXPECT_EQ(0, RunChild(leaveAndLog));
    Log("parent");
    gFileLogger.LeaveCriticalSection();
    std::thread([] { Log("thread"); }).join();
    EXPECT_EQ((Texts{"child", "its thread", "parent", "thread"}), ClosedTexts());
}

TEST_F(LogLifeTest, CallsBeforeTheBeginningAndAfterTheEndAreHarmless)
{
    const auto exit = []() -> int
    {
        gHostObject.m_isTested = true;
        SetErrorMessage(ZR_ERROR_ALREADY_INITIALISED, "override");
        Log("in time");
        std::exit(0);
    };
    EXPECT_EQ(kAllCallsWereHarmless, RunChild(exit));
    EXPECT_EQ(Texts{"in time"}, ClosedTexts());
}
