// Entries: filter, fields, texts, settings, flushing.
#include "support/Allocations.h"
#include "support/Descriptors.h"
#include "support/Faults.h"
#include "support/LogTest.h"

#include <cerrno>
#include <climits>
#include <ctime>
#include <fcntl.h>
#include <functional>
#include <sys/stat.h>
#include <thread>

namespace
{

class FileLoggerTest : public LogTest
{
protected:
    // What a call writes, without its stamp.
    std::string Entry(const std::function<bool()>& log) const
    {
        SetOptions(LOGGING_STRATEGY_OVERWRITE);
        EXPECT_TRUE(log());
        ShutdownLogging();
        return OnDisk().substr(24);
    }
};

const wchar_t kNoCharacter[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};

std::string ThreadField()
{
    return "[ThreadID: " + std::to_string(gettid()) + "] - ";
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
        bool written;
    } rows[] = {{false, 3, ~0u, 0, ~0u, false},
                {true, 3, ~0u, 3, 1, true},
                {true, 3, ~0u, 4, 1, false},
                {true, 5, ~0u, 5, 1, true},
                {true, -1, ~0u, -1, 1, true},
                {true, -1, ~0u, 0, 1, false},
                {true, 0, ~0u, INT_MIN, 1, true},
                {true, 3, ~0u, 0, 0, false},
                {true, 3, 0, 0, ~0u, false},
                {true, 3, 6, 0, 12, true},
                {true, 3, 0x80000000, 0, 0x7FFFFFFF, false}};
    for (const auto& row : rows)
    {
        const std::string name = m_folder / ("filter" + std::to_string(&row - rows));
        InitialiseLogging(row.enable, row.loggerLevel, row.loggerMask, name.c_str());
        EXPECT_TRUE(LogMessage(row.level, row.mask, "", "x"));
        EXPECT_EQ(row.written, std::filesystem::exists(name)) << "row " << &row - rows;
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
    const std::time_t start = std::time(nullptr);
    std::time_t before = start;
    for (; before == start; before = std::time(nullptr))
    {
        usleep(10000);
    }
    Log("x");
    const std::time_t after = std::time(nullptr);
    ShutdownLogging();
    const std::string written = ParseLog(OnDisk()).at(0).m_stamp;
    EXPECT_LE(stamp(before), written);
    EXPECT_GE(stamp(after) + ".999", written);
    unsetenv("TZ");
}

TEST_F(FileLoggerTest, ShowsTheLevel)
{
    const struct
    {
        int level;
        const char* field;
    } rows[] = {{0, "ERROR      - "},      {1, "WARNING    - "},
                {2, "DEBUG_LOW  - "},      {3, "DEBUG_HIGH - "},
                {4, "Level 4    - "},      {-1, "Level -1   - "},
                {9999, "Level 9999 - "},   {-999, "Level -999 - "},
                {10000, "Level 10000 - "}, {INT_MIN, "Level -2147483648 - "}};
    InitialiseLogging(true, INT_MAX, 1, (m_folder / "app.log").c_str());
    for (const auto& row : rows)
    {
        const auto log = [&]
        {
            return LogMessage(row.level, 1, "Camera(120) : Open() - ", "device not found");
        };
        EXPECT_EQ(row.field + ThreadField() + "Camera(120) : Open() - device not found\n", Entry(log));
    }
}

TEST_F(FileLoggerTest, WritesTheTextOfEveryCall)
{
    const std::string longText(5000, 'x');
    const unsigned char bytes[] = "Hello, world!%\r\n\x7F\x80";
    const unsigned char few[] = {0x41, 0x42, 0x25};
    const unsigned char edges[] = {0x00, 0x1F, 0x20, 0x7E, 0xFF};
    const std::string row = "48 65 6C 6C 6F 2C 20 77 6F 72 6C 64 21 25 0D 0A : Hello, world!...";
    const auto hex = [](const char* message, const unsigned char* buffer, int length)
    {
        return LogMessageAndBufferAsHex(0, 1, "S - ", message, buffer, length);
    };
    const struct
    {
        std::function<bool()> log;
        std::string text;
    } rows[] = {{[] { return LogMessage(0, 1, nullptr, nullptr); }, ""},
                {[] { return LogMessage(0, 1, "S - ", nullptr); }, "S - "},
                {[] { return LogMessage(0, 1, "", "100%s"); }, "100%s"},
                {[] { return LogFormatted(0, 1, "Main - ", "%d items", 3); }, "Main - 3 items"},
                {[] { return LogFormatted(0, 1, "S - ", nullptr); }, "S - "},
                {[] { return LogFormatted(0, 1, nullptr, "%s", ""); }, ""},
                {[] { return LogFormatted(0, 1, "S - ", "before %ls", kNoCharacter); }, "S - "},
                {[&] { return LogFormatted(0, 1, "S - ", "%.1023s", longText.c_str()); }, "S - " + longText.substr(0, 1023)},
                {[&] { return LogFormatted(0, 1, "S - ", "%.1024s", longText.c_str()); }, "S - " + longText.substr(0, 1024)},
                {[&] { return LogFormatted(0, 1, "S - ", "%s", longText.c_str()); }, "S - " + longText},
                {[&] { return hex("m", bytes, 0); }, "S - m\n"},
                {[&] { return hex("m", bytes, INT_MIN); }, "S - m\n"},
                {[&] { return hex("m", nullptr, 5); }, "S - m\n"},
                {[&] { return hex(nullptr, few, 1); }, "S - \n41" + std::string(45, ' ') + " : A"},
                {[&] { return hex("frame", few, 3); }, "S - frame\n41 42 25" + std::string(39, ' ') + " : AB."},
                {[&] { return hex("", edges, 5); }, "S - \n00 1F 20 7E FF" + std::string(33, ' ') + " : .. ~."},
                {[&] { return hex("m", bytes, 16); }, "S - m\n" + row},
                {[&] { return hex("m", bytes, 17); }, "S - m\n" + row + "\n7F" + std::string(45, ' ') + " : ."},
                {[&] { return hex("m", bytes, 18); }, "S - m\n" + row + "\n7F 80" + std::string(42, ' ') + " : .."}};
    for (const auto& call : rows)
    {
        EXPECT_EQ("ERROR      - " + ThreadField() + call.text + "\n", Entry(call.log)) << "row " << &call - rows;
    }
}

TEST_F(FileLoggerTest, FlushesOneLineAfterTheInterval)
{
    for (const unsigned int interval : {0u, 1u, 100u})
    {
        const std::string name = std::to_string(interval);
        SetOptions(LOGGING_STRATEGY_APPEND, 0, interval);
        Start(name);
        for (unsigned int line = 1; line <= 2 * (interval + 1); ++line)
        {
            Log("x");
            EXPECT_EQ(line - line % (interval + 1), ParseLog(OnDisk(name)).size()) << "interval " << interval;
        }
    }
    SetOptions(LOGGING_STRATEGY_APPEND, 0, UINT_MAX);
    Log("x");
    EXPECT_EQ(202u, ParseLog(OnDisk("100")).size());
}

TEST_F(FileLoggerTest, KeepsWholeLinesOnDiskBetweenFlushes)
{
    std::vector<std::string> texts;
    for (std::size_t line = 0; line < 100; ++line)
    {
        texts.push_back(std::string(line * 131 % 4000, 'x'));
    }
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
    SetOptions(7);
    Log("3");
    EXPECT_EQ((std::vector<std::string>{"1", "2", "3"}), ClosedTexts());
    SetOptions(LOGGING_STRATEGY_OVERWRITE);
    Log("4");
    Log("5");
    const char* const name = GetLogFilename();
    Start("app.log"); // the same name: the file stays open, the name where it is
    EXPECT_EQ(static_cast<const void*>(name), GetLogFilename());
    Log("6");
    EXPECT_EQ((std::vector<std::string>{"4", "5", "6"}), ClosedTexts());
    Log("7");
    Start("other.log"); // another name closes the file at once
    EXPECT_EQ(1u, ParseLog(OnDisk()).size());
    EXPECT_EQ("", OnDisk("other.log"));
}

TEST_F(FileLoggerTest, GivesBackItsSettings)
{
    for (const LoggingSettings& set : {LoggingSettings{1, 2, 3, LOGGING_STRATEGY_APPEND, 5000, 6},
                                       LoggingSettings{1, 2, UINT_MAX, LOGGING_STRATEGY_FILE_SIZE, 5000, UINT_MAX},
                                       LoggingSettings{1, 2, 0, static_cast<ZelvoReaderLoggingStrategy>(7), 5000, 0}})
    {
        LoggingSettings copy = set;
        LoggingSettings got = {};
        SetLoggingOptions(&copy);
        SetLoggingOptions(nullptr);
        GetLoggingOptions(nullptr);
        GetLoggingOptions(&got);
        EXPECT_EQ(ZR_LOG_DEBUG_HIGH, got.logLevel);
        EXPECT_EQ(ZR_LOG_ALL_CATEGORIES, got.logMask);
        EXPECT_EQ(set.flushInterval, got.flushInterval);
        EXPECT_EQ(set.strategy, got.strategy);
        EXPECT_EQ(set.strategy == LOGGING_STRATEGY_FILE_SIZE ? 5000u : 0u, got.maxFileSize);
        EXPECT_EQ(set.reserved, got.reserved);
    }
}

TEST_F(FileLoggerTest, KeepsItsDescriptorFromChildrenAndStandardStreams)
{
    const auto body = [this]
    {
        const auto isKept = [this]
        {
            Log("x");
            const int descriptor = DescriptorOf(m_folder / "app.log");
            return descriptor > STDERR_FILENO && (fcntl(descriptor, F_GETFD) & FD_CLOEXEC) != 0;
        };
        const bool keptBefore = isKept();
        ShutdownLogging();
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
        return keptBefore && isKept() && fcntl(STDIN_FILENO, F_GETFD) < 0 ? 0 : 1;
    };
    EXPECT_EQ(0, RunChild(body));
}

TEST_F(FileLoggerTest, AllocatesOnceALineAndNothingForAFilteredOne)
{
    const unsigned char bytes[300] = {};
    Log("opens the file");
    for (int length = 1; length < 300; ++length)
    {
        for (const int level : {0, 4})
        {
            const long before = Allocations::tCount;
            LogFormatted(level, 1, "S - ", "%*d", 2 * length, 7);
            LogMessageAndBufferAsHex(level, 1, "S - ", "m", bytes, length);
            LogMessage(level, 1, "S - ", "message");
            EXPECT_GE(level == 0 ? 3 : 0, Allocations::tCount - before) << level << ", " << length;
        }
    }
}

TEST_F(FileLoggerTest, LeavesErrnoAlone)
{
    const std::function<void()> calls[] = {[] { Log("first line"); },
                                           [] { LogFormatted(0, 1, "", "%ls", kNoCharacter); },
                                           [this] { Start("missing/app.log"); },
                                           [] { EXPECT_FALSE(Log("no file")); },
                                           [] { EXPECT_FALSE(LogFormatted(0, 1, "", "no file %d", 1)); },
                                           [] { SetOptions(LOGGING_STRATEGY_FILE_SIZE); },
                                           [] { EXPECT_FALSE(LogMessageAndBufferAsHex(0, 1, "", "no folder", nullptr, 0)); },
                                           [this] { Start("series.log"); },
                                           [] { Log("rotates"); },
                                           [] { Faults::gDiskSpace = 0; },
                                           [] { SetOptions(LOGGING_STRATEGY_APPEND); },
                                           [] { Log("disk full"); },
                                           [] { EXPECT_EQ(0, RunChild([] { return errno == ELIBBAD ? 0 : 1; })); },
                                           []
                                           {
                                               ShutdownLogging();
                                           }};
    for (const auto& call : calls)
    {
        errno = ELIBBAD;
        call();
        EXPECT_EQ(ELIBBAD, errno) << "call " << &call - calls;
    }
    Faults::gDiskSpace = -1;
}
