// Entries: filter, fields, texts, settings, flushing.
#include "support/Descriptors.h"
#include "support/Faults.h"
#include "support/LogTest.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>
#include <fcntl.h>
#include <tuple>

namespace
{

using FileLoggerTest = LogTest;

const wchar_t kNoCharacter[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};

bool LogHex(const char* message, const void* bytes, int length)
{
    return LogMessageAndBufferAsHex(0, 1, "S - ", message, static_cast<const unsigned char*>(bytes), length);
}

} // namespace

TEST_F(FileLoggerTest, FiltersByEnableLevelAndMask)
{
    const struct
    {
        bool enable;
        int loggerLevel;
        unsigned int loggerMask;
        int level;
        unsigned int mask;
        std::ptrdiff_t lines;
    } rows[] = {{false, 3, ~0u, 0, ~0u, 0},    {true, 3, ~0u, 3, 1, 4}, {true, 3, ~0u, 4, 1, 0},
                {true, 0, ~0u, INT_MIN, 1, 4}, {true, 3, 6, 0, 12, 4},  {true, 3, 0x80000000, 0, 0x7FFFFFFF, 0}};
    for (const auto& row : rows)
    {
        std::filesystem::remove(m_folder / "app.log");
        InitialiseLogging(row.enable, row.loggerLevel, row.loggerMask, (m_folder / "app.log").c_str());
        EXPECT_TRUE(LogMessage(row.level, row.mask, "", "x"));
        EXPECT_TRUE(LogFormatted(row.level, row.mask, "", "%d", 1));
        EXPECT_TRUE(LogMessageAndBufferAsHex(row.level, row.mask, "", "", nullptr, 0));
        ShutdownLogging();
        EXPECT_EQ(row.lines, std::ranges::count(OnDisk(), '\n')) << &row - rows;
    }
}

TEST_F(FileLoggerTest, StampsLinesWithTheLocalTime)
{
    const auto stamp = [](std::time_t second)
    {
        char text[32];
        std::strftime(text, sizeof text, "%Y%m%d %H:%M:%S", std::localtime(&second));
        return std::string(text + 2);
    };
    setenv("TZ", "AAA-05:30", 1); // a change of zone is noticed with the next second
    sleep(1);
    const std::time_t before = std::time(nullptr);
    Log("x");
    const std::time_t after = std::time(nullptr);
    ShutdownLogging();
    const std::string written = ParseLog(OnDisk()).at(0).m_stamp;
    EXPECT_LE(stamp(before), written);
    EXPECT_GE(stamp(after) + ".999", written);
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
    expect("Level -999 - ", "m", LogMessage(-999, 1, "", "m"));
    expect("Level 10000 - ", "m", LogMessage(10000, 1, "", "m"));
    expect("Level -2147483648 - ", "m", LogMessage(INT_MIN, 1, "", "m"));

    const std::string longText(5000, 'x');
    const std::string error = "ERROR      - ";
    expect(error, "S - -3 items", LogFormatted(0, 1, "S - ", "%d items", -3));
    expect(error, "S - ", LogFormatted(0, 1, "S - ", nullptr));
    expect(error, "S - ", LogFormatted(0, 1, "S - ", "%2000d before %ls", 1, kNoCharacter));
    for (const int length : {1023, 1024, 5000})
    {
        expect(error, longText.substr(0, static_cast<std::size_t>(length)),
               LogFormatted(0, 1, "", "%.*s", length, longText.c_str()));
    }
    // Another thread may shorten an argument between the two passes; here the first pass does, with what it counts.
    std::string argument(2000, 'x');
    expect(error, longText.substr(0, 1500) + "\xD0\x07",
           LogFormatted(0, 1, "", "%s%n", argument.c_str(), reinterpret_cast<int*>(&argument[1500])));

    const char bytes[] = "Hello, world!%\x1F\x20\x7E\x7F";
    const std::string row = "S - m\n48 65 6C 6C 6F 2C 20 77 6F 72 6C 64 21 25 1F 20 : Hello, world!.. ";
    expect(error, "S - m\n", LogHex("m", bytes, INT_MIN));
    expect(error, "S - m\n", LogHex("m", nullptr, 5));
    expect(error, "S - \n7F" + std::string(45, ' ') + " : .", LogHex(nullptr, bytes + 17, 1));
    expect(error, row, LogHex("m", bytes, 16));
    expect(error, row + "\n7E 7F" + std::string(42, ' ') + " : ~.", LogHex("m", bytes, 18));
    expect(error, "S - m\n20 77 6F 72 6C 64 21 25 1F 20 7E 7F 00 01 FE FF :  world!.. ~.....",
           LogHex("m", "\x20\x77\x6F\x72\x6C\x64\x21\x25\x1F\x20\x7E\x7F\x00\x01\xFE\xFF", 16));
}

TEST_F(FileLoggerTest, FlushesOneLineAfterTheInterval)
{
    for (const unsigned int interval : {0u, 100u, UINT_MAX})
    {
        const std::string name = std::to_string(interval);
        SetOptions(LOGGING_STRATEGY_APPEND, 0, interval);
        Start(name);
        for (unsigned int line = 1; line <= 202; ++line)
        {
            Log("x");
            const unsigned int onDisk = interval == UINT_MAX ? 0 : line - line % (interval + 1);
            EXPECT_EQ(onDisk, ParseLog(OnDisk(name)).size()) << "interval " << interval;
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
    ShutdownLogging();
    ShutdownLogging();
    Log("2");
    SetOptions(7); // counts as appending
    Log("3");
    EXPECT_EQ((std::vector<std::string>{"1", "2", "3"}), ClosedTexts());
    SetOptions(LOGGING_STRATEGY_OVERWRITE);
    Log("4");
    const char* const name = GetLogFilename();
    Start("app.log"); // the same name: the file stays open, the name where it is
    EXPECT_EQ(static_cast<const void*>(name), GetLogFilename());
    Log("5");
    EXPECT_EQ((std::vector<std::string>{"4", "5"}), ClosedTexts());
    Log("6");
    Start("other.log"); // another name closes the file at once
    EXPECT_EQ(1u, ParseLog(OnDisk()).size());
    EXPECT_EQ("", OnDisk("other.log"));
}

TEST_F(FileLoggerTest, GivesBackItsSettings)
{
    for (const auto strategy : {LOGGING_STRATEGY_FILE_SIZE, static_cast<ZelvoReaderLoggingStrategy>(7)})
    {
        LoggingSettings set = {1, 2, UINT_MAX, strategy, 5000, 6};
        LoggingSettings got = {};
        SetLoggingOptions(&set);
        SetLoggingOptions(nullptr);
        GetLoggingOptions(nullptr);
        GetLoggingOptions(&got);
        EXPECT_EQ(std::tuple(ZR_LOG_DEBUG_HIGH, ZR_LOG_ALL_CATEGORIES, UINT_MAX, strategy, 6u),
                  std::tuple(got.logLevel, got.logMask, got.flushInterval, got.strategy, got.reserved));
        EXPECT_EQ(strategy == LOGGING_STRATEGY_FILE_SIZE ? 5000u : 0u, got.maxFileSize);
    }
}

TEST_F(FileLoggerTest, KeepsItsDescriptorFromChildrenAndStandardStreams)
{
    const auto isKept = [this]
    {
        Log("x");
        const int descriptor = DescriptorOf(m_folder / "app.log");
        return descriptor > STDERR_FILENO && (fcntl(descriptor, F_GETFD) & FD_CLOEXEC) != 0;
    };
    EXPECT_TRUE(isKept());
    ShutdownLogging();
    const auto body = [&]
    {
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
        return isKept() && fcntl(STDIN_FILENO, F_GETFD) < 0 ? 0 : 1;
    };
    EXPECT_EQ(0, RunChild(body));
}

TEST_F(FileLoggerTest, LeavesErrnoAlone)
{
    errno = ELIBBAD;
    const std::vector<int> seen = {
        (Log("first line"), errno),
        (LogFormatted(0, 1, "", "%ls", kNoCharacter), errno),
        (Start("missing/app.log"), errno),
        (LogFormatted(0, 1, "", "no file %d", 1), errno),
        (SetOptions(LOGGING_STRATEGY_FILE_SIZE), errno),
        (LogHex("no folder", nullptr, 0), errno),
        (Faults::gDiskSpace = 0, SetOptions(LOGGING_STRATEGY_APPEND), errno),
        (Log("disk full"), errno),
        (RunChild([] { return errno == ELIBBAD ? 0 : 1; }) == 0 ? errno : -1),
        (ShutdownLogging(), errno),
    };
    EXPECT_EQ(std::vector<int>(seen.size(), ELIBBAD), seen);
    Faults::gDiskSpace = -1;
}
