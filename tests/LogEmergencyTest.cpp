// The log where its state is another's: calls that were cut off, a section that cannot be had, a file that takes nothing.
#include "ErrorHandlerDll/HexDump.h"
#include "ErrorHandlerDll/logging/LogEntry.h"
#include "ErrorHandlerDll/logging/ProcessLog.h"
#include "support/Faults.h"
#include "support/LogTest.h"
#include "support/SignalHandler.h"

#include <atomic>
#include <csetjmp>
#include <csignal>
#include <cstdlib>
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
    if (sigsetjmp(gPlace, 1) == 0)
    {
        call();
        _exit(3);
    }
    gFileLogger.EnterCriticalSection();
    gFileLogger.Emergency().ForgetInterruptedCall();
    gFileLogger.Emergency().RestoreSectionDepth(0);
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

} // namespace

TEST_F(LogEmergencyTest, GoesOnAfterACallThatWasCutOff)
{
    const auto cutHexDump = []
    {
        std::signal(SIGSEGV, [](int) { JumpOut(); });
        LogMessageAndBufferAsHex(ZR_LOG_ERROR, 1, "", "cut", reinterpret_cast<unsigned char*>(16), 4096);
    };
    const auto cutWrite = [](long written, int error)
    {
        if (written != 0 || error != 0)
        {
            Faults::gWrites = {{written, error}};
        }
        Faults::gAfterWrite = JumpOut;
        ShutdownLogging();
    };
    const std::function<void()> rows[] = {
        cutHexDump,
        [&] { cutWrite(0, 0); },
        [&] { cutWrite(100, 0); },
        [&] { cutWrite(0, ENOSPC); },
    };
    for (const int strategy : {LOGGING_STRATEGY_APPEND, LOGGING_STRATEGY_FILE_SIZE})
    {
        for (const auto& row : rows)
        {
            const std::string name = std::to_string(strategy) + std::to_string(&row - rows) + ".1.log";
            const auto logAroundCut = [&]
            {
                SetOptions(strategy, 100000);
                Start(name);
                Log("one");
                Log("two");
                Cut(row);
                std::thread([] { Log("three"); }).join();
                ShutdownLogging();
                return 0;
            };
            EXPECT_EQ(0, RunChild(logAroundCut)) << name;
            EXPECT_EQ((std::vector<std::string>{"one", "two", "three"}), ClosedTexts(name)) << name;
        }
    }
    const auto logBehindTornLine = []
    {
        Faults::gWrites = {{50000, 0}};
        Faults::gAfterWrite = JumpOut;
        Cut([] { Log(std::string(100000, 'x')); });
        Log("next");
        ShutdownLogging();
        return 0;
    };
    EXPECT_EQ(0, RunChild(logBehindTornLine));
    ASSERT_EQ('\n', OnDisk()[50000]);
    EXPECT_EQ(1u, ParseLog(OnDisk().substr(50001)).size());
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
    const auto forkAndExitBesideLogging = []
    {
        const auto logForEver = []
        {
            while (Log(std::string(8000, 'x')))
            {
            }
        };
        std::thread(logForEver).detach();
        while (IsFree(1))
        {
            std::this_thread::yield();
        }
        std::exit(RunChild([] { return 0; }));
        return 1;
    };
    EXPECT_EQ(0, RunChild(forkAndExitBesideLogging));
}
