// The log while the system fails, and where its state is another's: calls that were cut off, a section that cannot be had, a
// file that takes nothing.
#include "ErrorHandlerDll/logging/LogEntry.h"
#include "ErrorHandlerDll/logging/ProcessLog.h"
#include "QV/HexDump.h"
#include "support/Faults.h"
#include "support/LogTest.h"

#include <barrier>
#include <csetjmp>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <set>
#include <sys/stat.h>
#include <thread>

namespace
{

using LogEmergencyTest = LogTest;
using LogFaultsTest = LogTest;

const std::string kLongText(100000, 'x');

sigjmp_buf gPlace;

// Runs `call`, jumps out of its write, and gives the section back as a dump does.
void CutAfterWrite(void (*call)())
{
    Faults::gAfterWrite = []
    {
        siglongjmp(gPlace, 1);
    };
    if (sigsetjmp(gPlace, 1) == 0)
    {
        call();
        ADD_FAILURE() << "nothing written";
    }
    const LogSectionScope section(gFileLogger);
    gFileLogger.Emergency().ForgetInterruptedCall();
    gFileLogger.Emergency().RestoreSectionDepth(0);
}

std::barrier gMeeting(2);

void Stop()
{
    gMeeting.arrive_and_wait();
    gMeeting.arrive_and_wait();
}

void StopInSection()
{
    const LogSectionScope section(gFileLogger);
    Stop();
    usleep(20000); // so that whoever wants the section has to wait
}

// The texts of the whole lines, as far as they are these words.
std::multiset<std::string> WordsIn(const std::string& text)
{
    const std::regex word(R"(\] - (one|two|dump|three))");
    return {std::sregex_token_iterator(text.begin(), text.end(), word, 1), std::sregex_token_iterator()};
}

std::function<void()> gInHandler;

// Runs `body` in a signal handler, where it may wait as long as that.
void InEmergency(int waitMs, const std::function<void()>& body)
{
    gInHandler = [&]
    {
        const QV::SignalSafeScope emergency;
        QV::SignalSafeScope::WaitLeftMs() = waitMs;
        body();
    };
    std::signal(SIGUSR2, [](int) { gInHandler(); });
    raise(SIGUSR2);
}

// Whether an emergency can enter the section, waiting as long as that.
bool IsFree(int waitMs)
{
    bool isFree = false;
    InEmergency(waitMs, [&] { isFree = LogSectionScope(gFileLogger).IsEntered(); });
    return isFree;
}

} // namespace

TEST_F(LogEmergencyTest, GoesOnAfterACallThatWasCutOff)
{
    Faults::gCalls = {{50000, 0}};
    CutAfterWrite([] { Log(kLongText); });
    Log("next");
    ShutdownLogging();
    EXPECT_EQ(Texts{"next"}, TextsOf(OnDisk().substr(50001)));
    SetOptions(LOGGING_STRATEGY_FILE_SIZE, 100000);
    for (const Faults::WriteFault fault : {Faults::WriteFault{100000, 0}, {100, 0}, {0, ENOSPC}})
    {
        const std::string name = std::to_string(fault.m_bytes) + ".1.log";
        Start(name);
        Log("one");
        Log("two");
        Faults::gCalls = {fault};
        CutAfterWrite(ShutdownLogging);
        std::thread([] { Log("three"); }).join();
        EXPECT_EQ((Texts{"one", "two", "three"}), ClosedTexts(name)) << name;
    }
}

TEST_F(LogEmergencyTest, WithoutTheSectionNothingIsTouchedButTheFile)
{
    SetOptions(LOGGING_STRATEGY_FILE_SIZE, 1000);
    Start("app.1.log");
    Log("buffered");
    const std::string longText(1000, 'x');
    std::thread owner(StopInSection);
    gMeeting.arrive_and_wait();
    const auto logWithoutTheSection = [&]
    {
        SetOptions(LOGGING_STRATEGY_APPEND);
        InitialiseLogging(false, 0, 0, "other.log");
        ShutdownLogging();
        EXPECT_STREQ("", GetLogFilename());
        EXPECT_TRUE(Log(longText));
        const unsigned char bytes[1000] = {1, 2};
        EXPECT_TRUE(LogMessageAndBufferAsHex(ZR_LOG_ERROR, 1, "", "hex", bytes, 2));
        const HexDump dump(bytes, sizeof bytes);
        EXPECT_FALSE(gFileLogger.Emergency().Write(LogEntry(ZR_LOG_ERROR, "", "too long", &dump),
                                                   LogEmergency::Caller::SIGNAL_HANDLER));
        gFileLogger.FlushLogFile();
    };
    InEmergency(0, logWithoutTheSection);
    EXPECT_FALSE(IsFree(5));
    gMeeting.arrive_and_wait();
    EXPECT_TRUE(IsFree(20000)); // its owner is waited for again
    owner.join();
    ShutdownLogging();
    EXPECT_EQ("buffered\n" + longText + "\nhex\n01 02 " + std::string(42, ' ') + ": ..\n",
              std::regex_replace(OnDisk("app.1.log"), std::regex(".*\\] - "), ""));
}

TEST_F(LogEmergencyTest, EveryWriteOpensAgainWhatTheHostHasClosed)
{
    const auto dump = []
    {
        const LogSectionScope section(gFileLogger);
        gFileLogger.Emergency().BeginDump();
        EXPECT_TRUE(Log("dump"));
        gFileLogger.Emergency().Flush();
        gFileLogger.Emergency().EndDump();
        EXPECT_TRUE(Log("end"));
    };
    const struct
    {
        int strategy;
        std::function<void()> write;
        Texts texts;
    } rows[] = {
        {LOGGING_STRATEGY_OVERWRITE, [] {}, {"before"}},
        {LOGGING_STRATEGY_OVERWRITE, [] { gFileLogger.FlushLogFile(); }, {"before"}},
        {LOGGING_STRATEGY_OVERWRITE, [] { Log(kLongText); }, {"before", kLongText}},
        {LOGGING_STRATEGY_FILE_SIZE, [] { Log(kLongText.substr(0, 900)); }, {"before", kLongText.substr(0, 900)}},
        {LOGGING_STRATEGY_APPEND, [] { InEmergency(0, [] { Log("dump"); }); }, {"before", "dump"}},
        {LOGGING_STRATEGY_OVERWRITE, [&] { InEmergency(0, dump); }, {"before", "dump", "end"}},
    };
    for (const auto& row : rows)
    {
        const std::string name = std::to_string(&row - rows);
        SetOptions(row.strategy, 1000);
        Start(name + ".1.log");
        const int descriptor = NextDescriptor();
        Log("before");
        close(descriptor);
        row.write();
        ShutdownLogging();
        EXPECT_EQ(row.texts, TextsOf(OnDisk(name + ".1.log") + OnDisk(name + ".2.log"))) << name;
    }
}

// Whoever writes the lines in the buffer, the dump or the owner that wakes, each comes once.
TEST_F(LogEmergencyTest, ClaimsTheLinesOfAnOwnerThatIsStopped)
{
    const struct
    {
        const char* what;
        void (*call)();
        void (*afterWrite)();
        std::deque<Faults::WriteFault> faults;
        std::multiset<std::string> whileStopped;
    } rows[] = {
        {"in the section", StopInSection, nullptr, {}, {"one", "two", "dump"}},
        {"flushing, before the write", ShutdownLogging, Stop, {{0, EINTR}}, {"dump"}},
        {"flushing, in the middle of the write", ShutdownLogging, Stop, {{100, 0}}, {"one", "dump"}},
        {"rotating, after the write", [] { Log(kLongText.substr(0, 850)); }, Stop, {}, {"one", "two", "dump"}},
    };
    for (const auto& row : rows)
    {
        const std::string name = std::to_string(&row - rows);
        SetOptions(LOGGING_STRATEGY_FILE_SIZE, 1000);
        Start(name + ".1.log");
        Log("one");
        Log("two");
        Faults::gCalls = row.faults;
        Faults::gAfterWrite = row.afterWrite;
        std::thread owner(row.call);
        gMeeting.arrive_and_wait();
        InEmergency(0, [] { EXPECT_TRUE(Log("dump")); });
        EXPECT_EQ(row.whileStopped, WordsIn(OnDisk(name + ".1.log"))) << row.what;
        gMeeting.arrive_and_wait();
        owner.join();
        Log("three");
        ShutdownLogging();
        EXPECT_EQ((std::multiset<std::string>{"one", "two", "dump", "three"}),
                  WordsIn(OnDisk(name + ".1.log") + OnDisk(name + ".2.log")))
            << row.what;
    }
}

TEST_F(LogEmergencyTest, AForkAndTheEndDoNotWaitForAReader)
{
    ASSERT_EQ(0, mkfifo((m_folder / "pipe").c_str(), 0600));
    fcntl(open((m_folder / "pipe").c_str(), O_RDWR), F_SETPIPE_SZ, 4096);
    SetOptions(LOGGING_STRATEGY_APPEND, 0, 0);
    Start("pipe");
    const auto forkAndExitBesideLogging = []() -> int
    {
        std::thread([] { Log(std::string(8000, 'x')); }).detach();
        while (IsFree(1))
        {
            std::this_thread::yield();
        }
        std::exit(RunChild([] { return 0; }));
    };
    EXPECT_EQ(0, RunChild(forkAndExitBesideLogging));
}

TEST_F(LogFaultsTest, WritesWholeLinesOnceAndInTheirOrder)
{
    const std::string torn = "whole\nkilled in the mid";
    const struct
    {
        int strategy;
        std::deque<Faults::WriteFault> faults;
        Texts lines;
        Texts expected;
    } rows[] = {
        {LOGGING_STRATEGY_APPEND, {{50000, 0}, {0, ENOSPC}, {0, ENOSPC}}, {kLongText}, {"end"}},
        {LOGGING_STRATEGY_OVERWRITE, {{50000, 0}, {0, ENOSPC}, {0, ENOSPC}}, {kLongText}, {"end"}},
        {LOGGING_STRATEGY_APPEND, {{10, 0}, {0, EIO}}, {"first", kLongText}, {"first", "end"}},
        {LOGGING_STRATEGY_APPEND, {}, {"a"}, {"a", "end"}},
        {LOGGING_STRATEGY_FILE_SIZE, {}, {"a"}, {"a", "end"}},
        {LOGGING_STRATEGY_APPEND, {}, {kLongText}, {kLongText, "end"}},
    };
    for (const auto& row : rows)
    {
        const std::string name = std::to_string(&row - rows) + ".1.log";
        std::ofstream(m_folder / name) << torn;
        SetOptions(row.strategy, 1000000);
        Start(name);
        Faults::gCalls = row.faults;
        for (const std::string& line : row.lines)
        {
            EXPECT_TRUE(Log(line));
        }
        SetOptions(LOGGING_STRATEGY_APPEND); // closes, with no room for a line feed either
        Faults::gCalls.clear();
        Log("end");
        ShutdownLogging();
        const std::string before = row.strategy == LOGGING_STRATEGY_OVERWRITE ? "" : torn + "\n";
        EXPECT_EQ(before, OnDisk(name).substr(0, before.size())) << name;
        EXPECT_EQ(row.expected, TextsOf(OnDisk(name).substr(before.size()))) << name;
    }
}

TEST_F(LogFaultsTest, StaysInAFullFileUntilItsLinesAreWritten)
{
    SetOptions(LOGGING_STRATEGY_FILE_SIZE, 2000);
    Faults::gCalls.assign(1000, {0, ENOSPC});
    Faults::gCalls.front() = {1500, 0};
    for (int i = 0; i < 100; ++i)
    {
        Log("line");
    }
    Faults::gCalls.clear();
    Log("room again");
    EXPECT_EQ(Texts(100, "line"), TextsOf(OnDisk("app.1.log")));
    EXPECT_EQ(Texts{"room again"}, ClosedTexts("app.2.log"));
}
