// The log where its state is another's: calls that were cut off, a section that cannot be had, a file that takes nothing.
#include "ErrorHandlerDll/logging/LogEntry.h"
#include "ErrorHandlerDll/logging/ProcessLog.h"
#include "QV/HexDump.h"
#include "support/Descriptors.h"
#include "support/Faults.h"
#include "support/LogTest.h"
#include "support/SignalHandler.h"

#include <atomic>
#include <csetjmp>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <sys/mman.h>
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

// The thread that composes the line is stopped at the first of the bytes.
void LogReluctantPage()
{
    static void* page;
    const int size = 4096;
    page = mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    std::signal(SIGSEGV,
                [](int)
                {
                    Stop();
                    mprotect(page, size, PROT_READ);
                });
    LogMessageAndBufferAsHex(ZR_LOG_ERROR, 1, "", "three", static_cast<unsigned char*>(page), 16);
    std::signal(SIGSEGV, SIG_DFL);
    munmap(page, size);
}

// The texts of the whole lines, as far as they are these words.
std::string WordsIn(const std::string& text)
{
    std::string words;
    for (std::size_t at = text.find("] - "); at != std::string::npos; at = text.find("] - ", at + 1))
    {
        for (const char* word : {"one", "two", "dump", "three"})
        {
            words += text.compare(at + 4, std::strlen(word), word) == 0 ? std::string(word) + " " : "";
        }
    }
    return words;
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
    const struct
    {
        const char* what;
        int strategy;
        std::function<void()> write;
        std::vector<std::string> texts;
    } rows[] = {{"close", LOGGING_STRATEGY_OVERWRITE, [] {}, {}},
                {"flush", LOGGING_STRATEGY_OVERWRITE, [] { gFileLogger.FlushLogFile(); }, {}},
                {"long line", LOGGING_STRATEGY_OVERWRITE, [] { Log(std::string(100000, 'x')); }, {std::string(100000, 'x')}},
                {"rotation", LOGGING_STRATEGY_FILE_SIZE, [] { Log(std::string(900, 'x')); }, {}},
                {"line of a dump", LOGGING_STRATEGY_APPEND, [] { EXPECT_TRUE(LogInDump("dump")); }, {"dump"}},
                {"dump",
                 LOGGING_STRATEGY_OVERWRITE,
                 []
                 {
                     const LogSectionScope section(gFileLogger);
                     gFileLogger.Emergency().BeginDump();
                     EXPECT_TRUE(LogInDump("dump"));
                     gFileLogger.Emergency().Flush();
                     gFileLogger.Emergency().EndDump();
                     EXPECT_TRUE(LogInDump("end"));
                 },
                 {"dump", "end"}}};
    for (const auto& row : rows)
    {
        const std::string name = std::to_string(&row - rows) + ".1.log";
        SetOptions(row.strategy, 1000);
        Start(name);
        Log("before");
        close(DescriptorOf(m_folder / name));
        row.write();
        std::vector<std::string> expected = {"before"};
        expected.insert(expected.end(), row.texts.begin(), row.texts.end());
        EXPECT_EQ(expected, ClosedTexts(name)) << row.what;
        if (row.strategy == LOGGING_STRATEGY_FILE_SIZE)
        {
            EXPECT_EQ(1u, ParseLog(OnDisk(std::to_string(&row - rows) + ".2.log")).size());
        }
    }
}

// Whoever writes the lines in the buffer, the dump or the owner that wakes, each comes once.
TEST_F(LogEmergencyTest, ClaimsTheLinesOfAnOwnerThatIsStopped)
{
    const struct
    {
        const char* what;
        std::function<void()> call;
        const char* whileStopped;
    } rows[] = {{"in the section",
                 []
                 {
                     const LogSectionScope section(gFileLogger);
                     Stop();
                     Log("three");
                 },
                 "one two dump "},
                {"composing", LogReluctantPage, "one two dump "},
                {"flushing, before the write",
                 []
                 {
                     Faults::gWrites = {{0, EINTR}};
                     Faults::gAfterWrite = Stop;
                     ShutdownLogging();
                     Log("three");
                 },
                 "dump "},
                {"flushing, in the middle of the write",
                 []
                 {
                     Faults::gWrites = {{100, 0}};
                     Faults::gAfterWrite = Stop;
                     ShutdownLogging();
                     Log("three");
                 },
                 "one dump "},
                {"rotating, after the write",
                 []
                 {
                     Faults::gAfterWrite = Stop;
                     Log("three" + std::string(900, ' '));
                 },
                 "one two dump "}};
    for (const auto& row : rows)
    {
        SetOptions(LOGGING_STRATEGY_FILE_SIZE, 1000);
        const std::string name = std::to_string(&row - rows) + ".1.log";
        Start(name);
        Log("one");
        Log("two");
        gStep = 0;
        std::thread owner(row.call);
        WaitForStep(1);
        InSignalHandler(
            []
            {
                const QV::SignalSafeScope emergency;
                QV::SignalSafeScope::WaitLeftMs() = 0;
                EXPECT_TRUE(Log("dump"));
            });
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
