// The log while the system fails, and where its state is another's: calls that were cut off, a section that cannot be had, a
// file that takes nothing.
#include "ErrorHandlerDll/logging/LogEntry.h"
#include "ErrorHandlerDll/logging/ProcessLog.h"
#include "QV/HexDump.h"
#include "support/Faults.h"
#include "support/LogTest.h"

#include <barrier>
#include <csetjmp>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <set>
#include <sys/stat.h>
#include <thread>
#include <tuple>

namespace
{

using LogEmergencyTest = LogTest;

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

using Words = std::multiset<std::string>;

// The texts of the whole lines, as far as they are these words.
Words WordsIn(const std::string& text)
{
    const std::regex word(R"(\] - (one|two|dump|three))");
    return {std::sregex_token_iterator(text.begin(), text.end(), word, 1), std::sregex_token_iterator()};
}

// Runs `body` as in a signal handler, where it may wait as long as that.
void InEmergency(int waitMs, const std::function<void()>& body)
{
    QV::SignalSafeScope::SetCheck(nullptr); // which looks for the handler
    const QV::SignalSafeScope emergency;
    QV::SignalSafeScope::WaitLeftMs() = waitMs;
    body();
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
    EXPECT_TRUE(std::regex_match(OnDisk().substr(50000), std::regex("\n.* - next\n")));
    for (const Faults::WriteFault fault : {Faults::WriteFault{100000, 0}, {100, 0}, {0, ENOSPC}})
    {
        SetOptions(LOGGING_STRATEGY_OVERWRITE);
        Log("one");
        Log("two");
        Faults::gCalls = {fault};
        CutAfterWrite(ShutdownLogging);
        std::thread([] { Log("three"); }).join();
        EXPECT_EQ((Texts{"one", "two", "three"}), ClosedTexts()) << fault.m_bytes;
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
    const std::tuple<int, std::function<void()>, Texts> rows[] = {
        {LOGGING_STRATEGY_OVERWRITE, [] {}, {"before"}},
        {LOGGING_STRATEGY_OVERWRITE, [] { gFileLogger.FlushLogFile(); }, {"before"}},
        {LOGGING_STRATEGY_OVERWRITE, [] { Log(kLongText); }, {"before", kLongText}},
        {LOGGING_STRATEGY_FILE_SIZE, [] { Log(kLongText.substr(0, 900)); }, {"before", kLongText.substr(0, 900)}},
        {LOGGING_STRATEGY_APPEND, [] { InEmergency(0, [] { Log("dump"); }); }, {"before", "dump"}},
        {LOGGING_STRATEGY_OVERWRITE, [&] { InEmergency(0, dump); }, {"before", "dump", "end"}},
    };
    constexpr int kFirst = STDERR_FILENO + 1;
    for (int i = 0; i < 2 * static_cast<int>(std::size(rows)); ++i)
    {
        const auto& [strategy, write, texts] = rows[i / 2];
        const int end = kFirst + i % 2 * 20; // the host has opened files of its own under all these numbers
        m_folder.Empty();
        SetOptions(strategy, 1000);
        Start("app.1.log");
        Log("before");
        close_range(kFirst, ~0u, 0);
        for (int descriptor = kFirst; descriptor < end; ++descriptor)
        {
            ASSERT_EQ(descriptor, open((m_folder / "host").c_str(), O_RDWR | O_CREAT | O_APPEND, 0600));
        }
        write();
        ShutdownLogging();
        EXPECT_EQ(texts, TextsOf(OnDisk("app.1.log") + OnDisk("app.2.log")));
        EXPECT_TRUE(end == kFirst || OnDisk("host").empty());
        for (int descriptor = kFirst; descriptor < end; ++descriptor)
        {
            EXPECT_EQ(0, close(descriptor));
        }
    }
}

// Whoever writes the lines in the buffer, the dump or the owner that wakes, each comes once.
TEST_F(LogEmergencyTest, ClaimsTheLinesOfAnOwnerThatIsStopped)
{
    const std::tuple<const char*, void (*)(), void (*)(), std::deque<Faults::WriteFault>, Words> rows[] = {
        {"in the section", StopInSection, nullptr, {}, {"one", "two", "dump"}},
        {"flushing, before the write", ShutdownLogging, Stop, {{0, EINTR}}, {"dump"}},
        {"flushing, in the middle of the write", ShutdownLogging, Stop, {{100, 0}}, {"one", "dump"}},
        {"rotating, after the write", [] { Log(kLongText.substr(0, 850)); }, Stop, {}, {"one", "two", "dump"}},
    };
    for (const auto& [what, call, afterWrite, faults, whileStopped] : rows)
    {
        m_folder.Empty();
        SetOptions(LOGGING_STRATEGY_FILE_SIZE, 1000);
        Start("app.1.log");
        Log("one");
        Log("two");
        Faults::gCalls = faults;
        Faults::gAfterWrite = afterWrite;
        std::thread owner(call);
        gMeeting.arrive_and_wait();
        InEmergency(0, [] { EXPECT_TRUE(Log("dump")); });
        EXPECT_EQ(whileStopped, WordsIn(OnDisk("app.1.log"))) << what;
        gMeeting.arrive_and_wait();
        owner.join();
        Log("three");
        ShutdownLogging();
        EXPECT_EQ((Words{"one", "two", "dump", "three"}), WordsIn(OnDisk("app.1.log") + OnDisk("app.2.log"))) << what;
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

TEST_F(LogEmergencyTest, WritesWholeLinesOnceAndInTheirOrder)
{
    const std::string torn = "whole\nkilled in the mid";
    const std::tuple<int, std::deque<Faults::WriteFault>, Texts, Texts> rows[] = {
        {LOGGING_STRATEGY_APPEND, {{50000, 0}, {0, ENOSPC}, {0, ENOSPC}}, {kLongText}, {"end"}},
        {LOGGING_STRATEGY_OVERWRITE, {{50000, 0}, {0, ENOSPC}, {0, ENOSPC}}, {kLongText}, {"end"}},
        {LOGGING_STRATEGY_APPEND, {{10, 0}, {0, EIO}}, {"first", kLongText}, {"first", "end"}},
        {LOGGING_STRATEGY_APPEND, {}, {"a"}, {"a", "end"}},
        {LOGGING_STRATEGY_FILE_SIZE, {{25, 0}, {0, EIO}}, {"a", "b"}, {"a", "b", "end"}},
        {LOGGING_STRATEGY_APPEND, {}, {kLongText}, {kLongText, "end"}},
    };
    for (const auto& [strategy, faults, lines, expected] : rows)
    {
        m_folder.Empty();
        std::ofstream(m_folder / "app.1.log") << torn;
        SetOptions(strategy, 1000000);
        Start("app.1.log");
        Faults::gCalls = faults;
        for (const std::string& line : lines)
        {
            EXPECT_TRUE(Log(line));
        }
        SetOptions(LOGGING_STRATEGY_APPEND); // closes, with no room for a line feed either
        Faults::gCalls.clear();
        Log("end");
        ShutdownLogging();
        const std::string before = strategy == LOGGING_STRATEGY_OVERWRITE ? "" : torn + "\n";
        EXPECT_EQ(before, OnDisk("app.1.log").substr(0, before.size()));
        EXPECT_EQ(expected, TextsOf(OnDisk("app.1.log").substr(before.size())));
    }
}

TEST_F(LogEmergencyTest, StaysInAFullFileUntilItsLinesAreWritten)
{
    SetOptions(LOGGING_STRATEGY_FILE_SIZE, 150);
    Faults::gCalls = {{100, 0}, {0, ENOSPC}, {0, ENOSPC}, {0, ENOSPC}};
    Log("one");
    Log("two");
    Log("three");
    Faults::gCalls.clear();
    Log("room again");
    EXPECT_EQ((Texts{"one", "two", "three"}), TextsOf(OnDisk("app.1.log")));
    EXPECT_EQ(Texts{"room again"}, ClosedTexts("app.2.log"));
}
