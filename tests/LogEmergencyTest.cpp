// The log where its state is another's: calls that were cut off, a section that cannot be had, a file that takes nothing.
#include "ErrorHandlerDll/logging/LogEntry.h"
#include "ErrorHandlerDll/logging/ProcessLog.h"
#include "QV/HexDump.h"
#include "support/Descriptors.h"
#include "support/Faults.h"
#include "support/LogTest.h"

#include <atomic>
#include <csetjmp>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <functional>
#include <sys/stat.h>
#include <thread>

namespace
{

using LogEmergencyTest = LogTest;

bool LogInDump(const std::string& text)
{
    return gFileLogger.Emergency().Write(LogEntry(ZR_LOG_ERROR, "", text), LogEmergency::Caller::DUMP);
}

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
        _exit(3);
    }
    gFileLogger.EnterCriticalSection();
    gFileLogger.Emergency().ForgetInterruptedCall();
    gFileLogger.Emergency().RestoreSectionDepth(0);
    gFileLogger.LeaveCriticalSection();
}

std::atomic<int> gStep{0};

void WaitForStep(int step)
{
    while (gStep != step)
    {
        std::this_thread::yield();
    }
}

void Stop()
{
    gStep = 1;
    WaitForStep(2);
}

// The texts of the whole lines, as far as they are these words.
std::string WordsIn(const std::string& text)
{
    std::string words;
    const std::regex word(R"(\] - (one|two|dump|three))");
    for (std::sregex_iterator found(text.begin(), text.end(), word); found != std::sregex_iterator(); ++found)
    {
        words += found->str(1) + " ";
    }
    return words;
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
    const std::deque<Faults::WriteFault> rows[] = {{}, {{100, 0}}, {{0, ENOSPC}}};
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
                Faults::gWrites = row;
                CutAfterWrite(ShutdownLogging);
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
        CutAfterWrite([] { Log(std::string(100000, 'x')); });
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
    gStep = 0;
    std::thread owner(
        []
        {
            const LogSectionScope section(gFileLogger);
            Stop();
            usleep(20000);
        });
    WaitForStep(1);
    const unsigned char bytes[1000] = {1, 2};
    const std::string longText(1000, 'x');
    const auto logWithoutTheSection = [&]
    {
        SetOptions(LOGGING_STRATEGY_APPEND);
        InitialiseLogging(false, 0, 0, "other.log");
        ShutdownLogging();
        EXPECT_STREQ("", GetLogFilename());
        EXPECT_TRUE(Log(longText));
        EXPECT_TRUE(LogMessageAndBufferAsHex(ZR_LOG_ERROR, 1, "", "hex", bytes, 2));
        const HexDump dump(bytes, sizeof bytes);
        EXPECT_FALSE(gFileLogger.Emergency().Write(LogEntry(ZR_LOG_ERROR, "", "too long", &dump),
                                                   LogEmergency::Caller::SIGNAL_HANDLER));
        gFileLogger.FlushLogFile();
    };
    InEmergency(0, logWithoutTheSection);
    EXPECT_FALSE(IsFree(5));
    gStep = 2;
    EXPECT_TRUE(IsFree(20000)); // its owner is waited for again
    owner.join();
    EXPECT_EQ(static_cast<const void*>(name), GetLogFilename());
    ShutdownLogging();
    const std::string text = OnDisk("app.1.log");
    const std::size_t hex = text.find("hex\n01 02 ");
    EXPECT_LT(text.find("buffered\n"), text.find("xxxxx"));
    EXPECT_LT(text.find("xxxxx"), hex);
    EXPECT_EQ(text.find("buffered\n"), text.rfind("buffered\n"));
}

TEST_F(LogEmergencyTest, EveryWriteOpensAgainWhatTheHostHasClosed)
{
    static const std::string longText(100000, 'x');
    const auto dump = []
    {
        const LogSectionScope section(gFileLogger);
        gFileLogger.Emergency().BeginDump();
        EXPECT_TRUE(LogInDump("dump"));
        gFileLogger.Emergency().Flush();
        gFileLogger.Emergency().EndDump();
        EXPECT_TRUE(LogInDump("end"));
    };
    const struct
    {
        const char* what;
        int strategy;
        std::function<void()> write;
        std::vector<std::string> texts;
    } rows[] = {
        {"close", LOGGING_STRATEGY_OVERWRITE, [] {}, {"before"}},
        {"flush", LOGGING_STRATEGY_OVERWRITE, [] { gFileLogger.FlushLogFile(); }, {"before"}},
        {"long line", LOGGING_STRATEGY_OVERWRITE, [] { Log(longText); }, {"before", longText}},
        {"rotation", LOGGING_STRATEGY_FILE_SIZE, [] { Log(std::string(900, 'x')); }, {"before"}},
        {"line of a dump", LOGGING_STRATEGY_APPEND, [] { LogInDump("dump"); }, {"before", "dump"}},
        {"dump", LOGGING_STRATEGY_OVERWRITE, dump, {"before", "dump", "end"}},
    };
    for (const auto& row : rows)
    {
        const std::string name = std::to_string(&row - rows) + ".1.log";
        SetOptions(row.strategy, 1000);
        Start(name);
        Log("before");
        close(DescriptorOf(m_folder / name));
        row.write();
        EXPECT_EQ(row.texts, ClosedTexts(name)) << row.what;
        if (row.strategy == LOGGING_STRATEGY_FILE_SIZE)
        {
            EXPECT_EQ(1u, ParseLog(OnDisk(std::to_string(&row - rows) + ".2.log")).size());
        }
    }
}

// Whoever writes the lines in the buffer, the dump or the owner that wakes, each comes once.
TEST_F(LogEmergencyTest, ClaimsTheLinesOfAnOwnerThatIsStopped)
{
    const auto stopInSection = []
    {
        const LogSectionScope section(gFileLogger);
        Stop();
        Log("three");
    };
    const auto stopInFlush = []
    {
        Faults::gAfterWrite = Stop;
        ShutdownLogging();
        Log("three");
    };
    const auto stopInRotation = []
    {
        Faults::gAfterWrite = Stop;
        Log("three" + std::string(900, ' '));
    };
    const struct
    {
        const char* what;
        void (*call)();
        std::deque<Faults::WriteFault> faults;
        const char* whileStopped;
    } rows[] = {
        {"in the section", stopInSection, {}, "one two dump "},
        {"flushing, before the write", stopInFlush, {{0, EINTR}}, "dump "},
        {"flushing, in the middle of the write", stopInFlush, {{100, 0}}, "one dump "},
        {"rotating, after the write", stopInRotation, {}, "one two dump "},
    };
    for (const auto& row : rows)
    {
        SetOptions(LOGGING_STRATEGY_FILE_SIZE, 1000);
        const std::string name = std::to_string(&row - rows) + ".1.log";
        Start(name);
        Log("one");
        Log("two");
        gStep = 0;
        Faults::gWrites = row.faults;
        std::thread owner(row.call);
        WaitForStep(1);
        InEmergency(0, [] { EXPECT_TRUE(Log("dump")); });
        EXPECT_EQ(row.whileStopped, WordsIn(OnDisk(name))) << row.what;
        gStep = 2;
        owner.join();
        ShutdownLogging();
        std::string all = WordsIn(OnDisk(name) + OnDisk(std::to_string(&row - rows) + ".2.log"));
        EXPECT_EQ(std::string("one two dump three ").size(), all.size()) << row.what << ": " << all;
    }
}

TEST_F(LogEmergencyTest, AForkAndTheEndDoNotWaitForAReader)
{
    ASSERT_EQ(0, mkfifo((m_folder / "pipe").c_str(), 0600));
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
