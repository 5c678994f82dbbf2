// The log where its state is another's: calls that were cut off, a section that cannot be had, files that take nothing,
// zones that are locked for ever.
#include "ErrorHandlerDll/HexDump.h"
#include "ErrorHandlerDll/logging/LogEntry.h"
#include "ErrorHandlerDll/logging/ProcessLog.h"
#include "support/Descriptors.h"
#include "support/Faults.h"
#include "support/LogTest.h"
#include "support/SignalHandler.h"

#include <atomic>
#include <csetjmp>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <sys/stat.h>
#include <thread>

namespace
{

using LogEmergencyTest = LogTest;

sigjmp_buf gPlace;

void JumpOut()
{
    siglongjmp(gPlace, 1);
}

// Runs `call`, which jumps out of the logger, and gives the section back as a dump does.
void Cut(const std::function<void()>& call)
{
    const unsigned int depth = gFileLogger.Emergency().GetSectionDepth();
    if (sigsetjmp(gPlace, 1) == 0)
    {
        call();
        ADD_FAILURE() << "was not cut";
        return;
    }
    gFileLogger.EnterCriticalSection();
    gFileLogger.Emergency().ForgetInterruptedCall();
    gFileLogger.Emergency().RestoreSectionDepth(depth);
    gFileLogger.LeaveCriticalSection();
}

// Whether an emergency can enter the section, waiting as long as that.
bool IsFree(int waitMs = 0)
{
    bool isFree = false;
    const auto tryToEnter = [&]
    {
        const QV::SignalSafeScope emergency;
        QV::SignalSafeScope::WaitLeftMs() = waitMs;
        isFree = LogSectionScope(gFileLogger).IsEntered();
    };
    InSignalHandler(tryToEnter);
    return isFree;
}

void WaitForTheNextSecond()
{
    for (const std::time_t start = std::time(nullptr); std::time(nullptr) == start;)
    {
        usleep(10000);
    }
}

} // namespace

TEST_F(LogEmergencyTest, GoesOnAfterACallThatWasCutOff)
{
    const struct
    {
        const char* what;
        std::deque<Faults::WriteFault> writes; // what becomes of them, when one is cut
    } rows[] = {{"composing", {}}, {"written, and not noted", {}}, {"half written", {{100, 0}}}, {"failed", {{0, ENOSPC}}}};
    for (const int strategy : {LOGGING_STRATEGY_APPEND, LOGGING_STRATEGY_FILE_SIZE})
    {
        for (const auto& row : rows)
        {
            const std::string name = std::to_string(strategy) + std::to_string(&row - rows) + ".1.log";
            const auto cutHexDump = []
            {
                std::signal(SIGSEGV, [](int) { JumpOut(); });
                LogMessageAndBufferAsHex(ZR_LOG_ERROR, 1, "", "cut", reinterpret_cast<unsigned char*>(16), 4096);
            };
            const auto cutWrite = [&]
            {
                Faults::gWrites = row.writes;
                Faults::gAfterWrite = JumpOut;
                ShutdownLogging();
            };
            const int status = RunChild(
                [&]
                {
                    SetOptions(strategy, 100000);
                    Start(name);
                    Log("one");
                    Log("two");
                    &row == rows ? Cut(cutHexDump) : Cut(cutWrite);
                    std::thread([] { Log("three"); }).join();
                    ShutdownLogging();
                    return 0;
                });
            EXPECT_EQ(0, status) << row.what;
            EXPECT_EQ((std::vector<std::string>{"one", "two", "three"}), ClosedTexts(name)) << row.what;
        }
    }
    const int status = RunChild(
        []
        {
            Faults::gWrites = {{50000, 0}};
            Faults::gAfterWrite = JumpOut;
            Cut([] { Log(std::string(100000, 'x')); });
            Log("next");
            ShutdownLogging();
            return 0;
        });
    EXPECT_EQ(0, status);
    const std::string text = OnDisk();
    ASSERT_EQ('\n', text[50000]);
    EXPECT_EQ(1u, ParseLog(text.substr(50001)).size());
}

TEST_F(LogEmergencyTest, EveryRoadOpensAgainWhatTheHostHasClosed)
{
    const auto logInDump = []
    {
        return gFileLogger.Emergency().Write(LogEntry(ZR_LOG_ERROR, "", "dump"), LogEmergency::Caller::DUMP);
    };
    const std::string longText(100000, 'x');
    const std::function<void()> roads[] = {
        [] {},
        [] { gFileLogger.FlushLogFile(); },
        [&] { Log(longText); },
        [&] { EXPECT_TRUE(logInDump()); },
        [&]
        {
            const LogSectionScope section(gFileLogger);
            gFileLogger.Emergency().BeginDump();
            EXPECT_TRUE(logInDump());
            gFileLogger.Emergency().Flush();
            gFileLogger.Emergency().EndDump();
            EXPECT_TRUE(logInDump());
        },
    };
    const std::vector<std::string> expected[] = {
        {"before"}, {"before"}, {"before", longText}, {"before", "dump"}, {"before", "dump", "dump"}};
    for (std::size_t i = 0; i < std::size(roads); ++i)
    {
        const std::string name = std::to_string(i) + ".log";
        SetOptions(i % 2 == 0 ? LOGGING_STRATEGY_OVERWRITE : LOGGING_STRATEGY_APPEND);
        Start(name);
        Log("before");
        close(DescriptorOf(m_folder / name));
        roads[i]();
        EXPECT_EQ(expected[i], ClosedTexts(name));
    }
}

TEST_F(LogEmergencyTest, WithoutTheSectionNothingIsTouchedButTheFile)
{
    SetOptions(LOGGING_STRATEGY_FILE_SIZE, 1000);
    Start("app.1.log");
    Log("buffered");
    const char* const name = GetLogFilename();
    std::atomic<int> step{0};
    const auto waitFor = [&](int wanted)
    {
        while (step != wanted)
        {
            std::this_thread::yield();
        }
    };
    std::thread owner(
        [&]
        {
            const LogSectionScope section(gFileLogger);
            step = 1;
            waitFor(2);
            usleep(20000);
        });
    waitFor(1);
    const unsigned char bytes[1000] = {1, 2};
    const auto logWithoutTheSection = [&]
    {
        const QV::SignalSafeScope emergency;
        QV::SignalSafeScope::WaitLeftMs() = 0;
        SetOptions(LOGGING_STRATEGY_APPEND);
        InitialiseLogging(false, 0, 0, "other.log");
        ShutdownLogging();
        EXPECT_STREQ("", GetLogFilename());
        EXPECT_TRUE(Log(std::string(1000, 'x')));
        EXPECT_TRUE(LogMessageAndBufferAsHex(ZR_LOG_ERROR, 1, "", "hex", bytes, 2));
        const HexDump dump(bytes, sizeof bytes);
        EXPECT_FALSE(gFileLogger.Emergency().Write(LogEntry(ZR_LOG_ERROR, "", "too long", &dump),
                                                   LogEmergency::Caller::SIGNAL_HANDLER));
        gFileLogger.FlushLogFile();
    };
    InSignalHandler(logWithoutTheSection);
    EXPECT_FALSE(IsFree(5));
    step = 2;
    EXPECT_TRUE(IsFree(20000)); // its owner is waited for again
    owner.join();
    EXPECT_EQ(static_cast<const void*>(name), GetLogFilename());
    ShutdownLogging();
    const std::string text = OnDisk("app.1.log");
    const std::size_t hex = text.find("hex\n01 02 ");
    EXPECT_LT(text.find("xxxxx"), hex);
    EXPECT_LT(hex, text.find("buffered\n"));
}

TEST_F(LogEmergencyTest, AForkAndTheEndDoNotWaitForAReader)
{
    const std::string path = m_folder / "pipe";
    ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
    SetOptions(LOGGING_STRATEGY_APPEND, 0, 0);
    Start("pipe");
    const int status = RunChild(
        []
        {
            std::thread(
                []
                {
                    while (Log(std::string(8000, 'x')))
                    {
                    }
                })
                .detach();
            while (IsFree(1))
            {
                std::this_thread::yield();
            }
            const pid_t child = fork();
            if (child == 0)
            {
                _exit(0);
            }
            int childStatus = 1;
            waitpid(child, &childStatus, 0);
            std::exit(childStatus);
            return 1;
        });
    EXPECT_EQ(0, status);
}

// The zone's file is a pipe: a thread that asks for the zone holds its lock until somebody opens the other end.
TEST_F(LogEmergencyTest, NeitherAForkedChildNorAHandlerWaitsForTheZone)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the thread sanitizer delays signal handlers in blocking calls";
#endif
    const std::string zone = m_folder / "zone";
    ASSERT_EQ(0, mkfifo(zone.c_str(), 0600));
    const int status = RunChild(
        [&]
        {
            Log("learns the second");
            setenv("TZ", (":" + zone).c_str(), 1);
            std::signal(SIGUSR1, [](int) { Log("from the handler"); });
            std::thread asking(tzset);
            WaitForTheNextSecond();
            const int childStatus = RunChild(
                []
                {
                    Log("from the child");
                    ShutdownLogging();
                    return 0;
                });
            pthread_kill(asking.native_handle(), SIGUSR1);
            WaitForTheNextSecond();
            close(open(zone.c_str(), O_WRONLY));
            asking.join();
            ShutdownLogging();
            return childStatus;
        });
    EXPECT_EQ(0, status);
    EXPECT_EQ((std::vector<std::string>{"learns the second", "from the child", "from the handler"}), ClosedTexts());
}
