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
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>

namespace
{

using LogEmergencyTest = LogTest;
using Caller = LogEmergency::Caller;

bool LogInEmergency(const std::string& text)
{
    return gFileLogger.Emergency().Write(LogEntry(ZR_LOG_ERROR, "", text), Caller::DUMP);
}

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

void LogHiddenPage()
{
    const int size = 4096;
    auto* const page = static_cast<unsigned char*>(mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    std::signal(SIGSEGV, [](int) { JumpOut(); });
    std::signal(SIGBUS, [](int) { JumpOut(); });
    LogMessageAndBufferAsHex(ZR_LOG_ERROR, 1, "", "cut", page, size);
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

void WaitForTheNextSecond()
{
    const std::time_t start = std::time(nullptr);
    while (std::time(nullptr) == start)
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
        std::function<void()> call;
    } rows[] = {{"composing", LogHiddenPage},
                {"written, and not noted",
                 []
                 {
                     Faults::gAfterWrite = JumpOut;
                     ShutdownLogging();
                 }},
                {"half written",
                 []
                 {
                     Faults::gWrites = {{100, 0}};
                     Faults::gAfterWrite = JumpOut;
                     ShutdownLogging();
                 }},
                {"failed, and not noted", []
                 {
                     Faults::gWrites = {{0, ENOSPC}};
                     Faults::gAfterWrite = JumpOut;
                     SetOptions(LOGGING_STRATEGY_APPEND);
                 }}};
    for (const int strategy : {LOGGING_STRATEGY_APPEND, LOGGING_STRATEGY_FILE_SIZE})
    {
        for (const auto& row : rows)
        {
            const std::string name = std::to_string(strategy) + std::to_string(&row - rows) + ".1.log";
            const int status = RunChild(
                [&]
                {
                    SetOptions(strategy, 100000);
                    Start(name);
                    Log("one");
                    Log("two");
                    Cut(row.call);
                    std::thread([] { Log("three"); }).join();
                    ShutdownLogging();
                    return 0;
                });
            EXPECT_EQ(0, status) << row.what;
            EXPECT_EQ((std::vector<std::string>{"one", "two", "three"}), ClosedTexts(name)) << row.what;
        }
    }
}

TEST_F(LogEmergencyTest, EndsALongLineThatWasCutOff)
{
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
                {"line of a dump", LOGGING_STRATEGY_APPEND, [] { EXPECT_TRUE(LogInEmergency("dump")); }, {"dump"}},
                {"dump",
                 LOGGING_STRATEGY_OVERWRITE,
                 []
                 {
                     const LogSectionScope section(gFileLogger);
                     gFileLogger.Emergency().BeginDump();
                     EXPECT_TRUE(LogInEmergency("dump"));
                     gFileLogger.Emergency().Flush();
                     gFileLogger.Emergency().EndDump();
                     EXPECT_TRUE(LogInEmergency("end"));
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
        });
    WaitForStep(1);
    const std::string longText(1000, 'x');
    const auto logWithoutTheSection = [&]
    {
        const QV::SignalSafeScope emergency;
        QV::SignalSafeScope::WaitLeftMs() = 0;
        SetOptions(LOGGING_STRATEGY_APPEND);
        InitialiseLogging(false, 0, 0, "other.log");
        ShutdownLogging();
        EXPECT_STREQ("", GetLogFilename());
        EXPECT_TRUE(Log(longText));
        const unsigned char bytes[] = {1, 2};
        EXPECT_TRUE(LogMessageAndBufferAsHex(ZR_LOG_ERROR, 1, "", "hex", bytes, 2));
        gFileLogger.FlushLogFile();
    };
    InSignalHandler(logWithoutTheSection);
    gStep = 2;
    owner.join();
    EXPECT_EQ(static_cast<const void*>(name), GetLogFilename());
    ShutdownLogging();
    const std::string text = OnDisk("app.1.log");
    const std::size_t hex = text.find("hex\n01 02 ");
    EXPECT_LT(text.find("buffered\n"), text.find("xxxxx"));
    EXPECT_LT(text.find("xxxxx"), hex);
    EXPECT_EQ(text.find("buffered\n"), text.rfind("buffered\n"));
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

TEST_F(LogEmergencyTest, WaitsAgainForAnOwnerThatWasWaitedForInVain)
{
    gStep = 0;
    std::thread owner(
        []
        {
            const LogSectionScope section(gFileLogger);
            Stop();
            usleep(20000);
        });
    WaitForStep(1);
    EXPECT_FALSE(IsFree(5));
    gStep = 2;
    EXPECT_TRUE(IsFree(20000));
    owner.join();
}

TEST_F(LogEmergencyTest, WaitsForAFileThatTakesNothingOnlyAsLongAsItMay)
{
    const std::string path = m_folder / "pipe";
    ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
    LogFile file({path});
    file.Open(false);
    const std::string line = std::string(99, 'x') + "\n";
    const std::string_view piece = line;
    int waitLeftMs = 20;
    std::atomic<std::size_t> written = 0;
    while (file.WriteAll({&piece, 1}, written, &waitLeftMs))
    {
        written = 0;
    }
    EXPECT_EQ(0, waitLeftMs);
    EXPECT_FALSE(file.WriteBesideOwner({&piece, 1}, &waitLeftMs));

    // A fork, and the end of the process, while a thread waits for a reader.
    SetOptions(LOGGING_STRATEGY_APPEND, 0, 0);
    Start("pipe");
    const int status = RunChild(
        []
        {
            std::thread([] { Log(std::string(8000, 'x')); }).detach(); // fits in no gap of the pipe
            while (IsFree())
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
    const int reader = open(path.c_str(), O_RDONLY | O_NONBLOCK); // lets the fixture write what is left
    std::string rest(1 << 16, '\0');
    EXPECT_LT(0, read(reader, rest.data(), rest.size()));
    Start("app.log");
    close(reader);
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
            const pid_t child = fork();
            if (child == 0)
            {
                alarm(10);
                Log("from the child");
                ShutdownLogging();
                _exit(0);
            }
            int childStatus = 1;
            waitpid(child, &childStatus, 0);
            pthread_kill(asking.native_handle(), SIGUSR1);
            WaitForTheNextSecond();
            close(open(zone.c_str(), O_WRONLY));
            asking.join();
            ShutdownLogging();
            return childStatus == 0 ? 0 : 2;
        });
    EXPECT_EQ(0, status);
    EXPECT_EQ((std::vector<std::string>{"learns the second", "from the child", "from the handler"}), ClosedTexts());
}
