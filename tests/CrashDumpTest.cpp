// What a dump does when its surroundings are damaged or unusual. Faults at arbitrary instructions: tools/crash_harness.
#include "ErrorHandlerDll/ExceptionHandler.h"
#include "ErrorHandlerDll/LinuxStructuredException.h"
#include "ErrorHandlerDll/crash/Dump.h"
#include "ErrorHandlerDll/logging/ProcessLog.h"
#include "support/LogTest.h"
#include "support/SignalHandler.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>

namespace
{

constexpr std::size_t kPageSize = 4096;

// In assembler, so that neither the compiler nor a sanitizer sees the fault coming.
void Fault()
{
    asm volatile("movb $1, 16" ::: "memory");
}

void InstallHandler(int signal, void (*handler)(int, siginfo_t*, void*))
{
    struct sigaction action = {};
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    sigaction(signal, &action, nullptr);
}

void DumpAndExit(int signal, siginfo_t* info, void* context)
{
    StructuredException exception(signal, static_cast<ucontext_t*>(context), info);
    ExceptionHandler::HandleStructuredException("Handler", exception, false);
    _exit(0);
}

void Dump(bool handles = false)
{
    ucontext_t context = {};
    siginfo_t info = {};
    StructuredException exception(SIGSEGV, &context, &info);
    if (handles)
    {
        ExceptionHandler::HandleStructuredException("Handler", exception, false);
    }
}

long Count(const std::string& text, const std::string& part)
{
    long count = 0;
    for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size())
    {
        ++count;
    }
    return count;
}

void ExpectOnceInOrder(const std::string& log, std::initializer_list<const char*> texts)
{
    std::size_t last = 0;
    for (const char* const text : texts)
    {
        EXPECT_EQ(1, Count(log, text)) << log;
        EXPECT_LE(last, log.find(text)) << log;
        last = log.find(text);
    }
}

class CrashDumpTest : public LogTest
{
protected:
    // Runs `body` in a child process, whose standard output goes to a file.
    template <class Body>
    int RunPrinting(Body body)
    {
        return RunChild(
            [&]
            {
                static_cast<void>(!std::freopen((m_folder / "stdout").c_str(), "w", stdout));
                return body();
            });
    }
    std::string Printed() const { return ReadFile(m_folder / "stdout"); }
};

} // namespace

TEST_F(CrashDumpTest, AFaultInAPartGoesBackToTheDump)
{
    const int status = RunPrinting(
        []
        {
            InstallHandler(SIGSEGV, DumpAndExit);
            const unsigned int depth = gFileLogger.Emergency().GetSectionDepth();
            for (int i = 0; i < 3; ++i)
            {
                bool finished = false;
                Crash::Dump::Run(
                    [&]
                    {
                        finished = Crash::Dump::RunPart(
                            []
                            {
                                gFileLogger.EnterCriticalSection(); // skipped by the jump
                                Crash::Dump::RunPart(Fault);        // the innermost place counts
                                Fault();
                            });
                    });
                if (finished || gFileLogger.Emergency().GetSectionDepth() != depth)
                {
                    return 1;
                }
            }
            if (Crash::DumpStack::Current() != nullptr)
            {
                return 2;
            }
            Dump();
            return 0;
        });
    EXPECT_EQ(0, status);
    EXPECT_EQ(1, Count(OnDisk(), "  Modules list:")); // that of the dump alone: the faults made none of their own
    EXPECT_EQ(1, Count(Printed(), "Finished GenerateModuleAddresses"));
}

namespace
{

sigjmp_buf gRecovery;

void JumpOut(int, siginfo_t*, void*)
{
    siglongjmp(gRecovery, 1);
}

// A fault in a dump, whose handler jumps without building an object.
void LeaveDump()
{
    InstallHandler(SIGSEGV, JumpOut);
    if (sigsetjmp(gRecovery, 1) == 0)
    {
        Crash::Dump::Run([] { Fault(); });
    }
}

void LeaveCallback()
{
    ExceptionHandler::SetErrorCallback([](ZelvoReaderErrorCode, char*, void*) { siglongjmp(gRecovery, 1); }, nullptr);
    if (sigsetjmp(gRecovery, 1) == 0)
    {
        InSignalHandler([] { Dump(true); });
    }
    ExceptionHandler::SetErrorCallback(nullptr, nullptr);
}

// A hex dump that runs into memory which is not there, inside the logger.
void LeaveLogCall()
{
    static const auto handler = [](int signal, siginfo_t* info, void* context)
    {
        StructuredException(signal, static_cast<ucontext_t*>(context), info);
        siglongjmp(gRecovery, 1);
    };
    InstallHandler(SIGSEGV, handler);
    if (sigsetjmp(gRecovery, 1) == 0)
    {
        LogMessageAndBufferAsHex(ZR_LOG_ERROR, 1, "", "cut", reinterpret_cast<unsigned char*>(16), 1);
    }
}

// Handlers within handlers, until the library refuses the innermost.
void LeaveFaultyCallback()
{
    static const auto handler = [](int signal, siginfo_t* info, void* context)
    {
        StructuredException exception(signal, static_cast<ucontext_t*>(context), info);
        ExceptionHandler::HandleStructuredException("Handler", exception, false);
        siglongjmp(gRecovery, 1);
    };
    InstallHandler(SIGSEGV, handler);
    ExceptionHandler::SetErrorCallback([](ZelvoReaderErrorCode, char*, void*) { Fault(); }, nullptr);
    if (sigsetjmp(gRecovery, 1) == 0)
    {
        Fault();
    }
    ExceptionHandler::SetErrorCallback(nullptr, nullptr);
}

} // namespace

TEST_F(CrashDumpTest, NothingStaysHeldWhereAJumpLeft)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the thread sanitizer allows no thread in the child of a process with threads";
#endif
    for (void (*const leave)() : {LeaveDump, LeaveCallback, LeaveLogCall, LeaveFaultyCallback})
    {
#ifdef __SANITIZE_ADDRESS__
        if (leave == LeaveDump)
        {
            continue; // a dump stays on the thread's stack here, where its frames cannot be told from others
        }
#endif
        std::filesystem::remove(m_folder / "app.log");
        const std::string longText(5000, 'x');
        const int status = RunPrinting(
            [&]
            {
                stack_t alternate = {};
                static char memory[65536];
                alternate.ss_sp = memory;
                alternate.ss_size = sizeof memory;
                sigaltstack(&alternate, nullptr);
                Log("before");
                for (int i = 0; i < 5; ++i)
                {
                    leave();
                    if (i > 0)
                    {
                        Log("own");
                    }
                    std::thread([] { Log("other"); }).join();
                }
                // No emergency, where it would be cut; neither in a callback that no signal has led to.
                static const auto logLongText = [&]
                {
                    LogFormatted(ZR_LOG_ERROR, 1, "", "%s", longText.c_str());
                };
                logLongText();
                ExceptionHandler::SetErrorCallback([](ZelvoReaderErrorCode, char*, void*) { logLongText(); }, nullptr);
                Dump(true);
                ShutdownLogging();
                sigaltstack(nullptr, &alternate);
                return alternate.ss_sp == memory && alternate.ss_flags == 0 ? 0 : 2;
            });
        EXPECT_EQ(0, status);
        const std::string log = OnDisk();
        EXPECT_EQ(5, Count(log, " - other\n")) << log;
        EXPECT_EQ(2, Count(log, longText + "\n"));
        EXPECT_EQ(2, Count(log.substr(log.find(longText)), "  Modules list:"));
    }
}

TEST_F(CrashDumpTest, WaitsForTheLogAgainAfterAJump)
{
    const int status = RunPrinting(
        []
        {
            const auto jump = [](ZelvoReaderErrorCode, char*, void*)
            {
                QV::SignalSafeScope::WaitLeftMs() = 0; // as after a thread that was waited for in vain
                siglongjmp(gRecovery, 1);
            };
            ExceptionHandler::SetErrorCallback(jump, nullptr);
            if (sigsetjmp(gRecovery, 1) == 0)
            {
                InSignalHandler([] { Dump(true); });
            }
            std::atomic<bool> isOwned = false;
            std::thread owner(
                [&isOwned]
                {
                    const LogSectionScope section(gFileLogger);
                    isOwned = true;
                    usleep(50000);
                    Log("end of the block");
                });
            while (!isOwned)
            {
                std::this_thread::yield();
            }
            InSignalHandler([] { Dump(); });
            owner.join();
            return 0;
        });
    EXPECT_EQ(0, status);
    EXPECT_LT(OnDisk().find("end of the block"), OnDisk().rfind("  Modules list:"));
    EXPECT_LT(OnDisk().find("end of the block"), OnDisk().rfind("Structured exception "));
}

TEST_F(CrashDumpTest, LeavesToTheHostsStreamWhatItsReaderDoesNotTake)
{
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_NONBLOCK));
    const std::string page(4096, 'x');
    while (write(ends[1], page.data(), page.size()) > 0)
    {
    }
    const int status = RunChild(
        [&]
        {
            dup2(ends[1], STDOUT_FILENO);
            std::fputs("the host's own", stdout);
            Dump();
            std::string read(1 << 20, '\0');
            while (::read(ends[0], read.data(), read.size()) > 0)
            {
            }
            std::fflush(stdout);
            const ssize_t size = ::read(ends[0], read.data(), read.size());
            return size > 0 && read.substr(0, static_cast<std::size_t>(size)) == "the host's own" ? 0 : 1;
        });
    EXPECT_EQ(0, status);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(CrashDumpTest, ALogThatCannotBeWrittenLeavesStandardOutput)
{
    void (*const damages[])() = {
#ifndef __SANITIZE_THREAD__ // it follows the damaged pointers itself, and faults where nobody can go on
        [] { std::memset(static_cast<void*>(&gFileLogger), 1, 64); }, // section, name; enabled, for the trace too
#endif
        // No file has so long a name. Building the next one must not throw in a handler.
        []
        {
            SetOptions(LOGGING_STRATEGY_FILE_SIZE, 1000);
            InitialiseLogging(true, ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, std::string(10000, 'x').c_str());
        },
    };
    for (const auto damage : damages)
    {
        const int status = RunPrinting(
            [=]
            {
                InstallHandler(SIGSEGV, DumpAndExit);
                damage();
                Fault();
                return 1;
            });
        EXPECT_EQ(0, status);
        for (const char* const text : {"  Fault address:  0x10", "reg[22] = ", "Done\nFinished GenerateModuleAddresses\n"})
        {
            EXPECT_EQ(2, Count(Printed(), text)) << text;
        }
    }
}

TEST_F(CrashDumpTest, PrintsToAStreamWithoutADescriptor)
{
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* const standard = stdout;
    stdout = open_memstream(&text, &size);
    std::fputs("before\n", stdout);
    Dump();
    std::fclose(stdout);
    stdout = standard;
    const std::string printed(text, size);
    std::free(text);
    EXPECT_TRUE(printed.starts_with("before\nStructuredException::StructuredException\nStructured exception "));
    EXPECT_TRUE(printed.ends_with("Done\nFinished GenerateModuleAddresses\n"));
    EXPECT_EQ(23, Count(printed, "\nreg["));
}

TEST_F(CrashDumpTest, StaysTheBeginningOfTheLogThatItOpened)
{
    const std::string header = "StructuredException::StructuredExceptionStructured exception ";
    for (const auto strategy : {LOGGING_STRATEGY_APPEND, LOGGING_STRATEGY_OVERWRITE, LOGGING_STRATEGY_FILE_SIZE})
    {
        Start("other.log");
        SetOptions(strategy, 1000000);
        const std::string name = std::to_string(strategy) + ".1.log";
        Start(name);
        testing::internal::CaptureStdout();
        Dump();
        testing::internal::GetCapturedStdout();
        Log("after");
        const std::vector<std::string> texts = ClosedTexts(name);
        ASSERT_LT(30u, texts.size());
        EXPECT_TRUE(texts.front().starts_with(header)) << texts.front();
        EXPECT_EQ("after", texts.back());
    }
}

namespace
{

// A page that cannot be read until the handler of the fault shows it: a hex dump of it stops inside the logger.
unsigned char* gHiddenPage = nullptr;

void HidePage()
{
    gHiddenPage = static_cast<unsigned char*>(mmap(nullptr, kPageSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
}

void LogHiddenPage()
{
    LogMessageAndBufferAsHex(ZR_LOG_ERROR, 1, "", "interrupted", gHiddenPage, 1);
}

void LogAndShowPage(int, siginfo_t*, void*)
{
    LogMessage(ZR_LOG_ERROR, 1, "", "from the handler");
    LogMessageAndBufferAsHex(ZR_LOG_ERROR, 1, "", "too long for a handler", reinterpret_cast<unsigned char*>(&gFileLogger),
                             4000);
    mprotect(gHiddenPage, kPageSize, PROT_READ);
}

bool IsFreeForOthers()
{
    bool isFree = false;
    std::thread(
        [&isFree]
        {
            InSignalHandler(
                [&isFree]
                {
                    const QV::SignalSafeScope emergency; // does not wait for ever
                    QV::SignalSafeScope::WaitLeftMs() = 100;
                    isFree = gFileLogger.EnterCriticalSection();
                    if (isFree)
                    {
                        gFileLogger.LeaveCriticalSection();
                    }
                });
        })
        .join();
    return isFree;
}

// Returns whether all is well in both processes.
bool ForkAndLog(bool isFreeInChild)
{
    const unsigned int depth = gFileLogger.Emergency().GetSectionDepth();
    errno = ELIBBAD;
    const pid_t child = fork();
    const bool isKept = errno == ELIBBAD;
    if (child == 0)
    {
        alarm(20);
        _exit(isKept && IsFreeForOthers() == isFreeInChild && LogMessage(ZR_LOG_ERROR, 1, "", "from the child") ? 0 : 1);
    }
    int status = 1;
    waitpid(child, &status, 0);
    return isKept && gFileLogger.Emergency().GetSectionDepth() == depth && !IsFreeForOthers() && status == 0;
}

bool gForkWasGood = true;
std::atomic<int> gStep{0};

void WaitFor(int step)
{
    while (gStep != step)
    {
        std::this_thread::yield();
    }
}

[[maybe_unused]] void ForkAndShowPage(int, siginfo_t*, void*)
{
    gForkWasGood = ForkAndLog(false);
    mprotect(gHiddenPage, kPageSize, PROT_READ);
}

[[maybe_unused]] void WaitAndShowPage(int, siginfo_t*, void*)
{
    gStep = 1;
    WaitFor(2);
    mprotect(gHiddenPage, kPageSize, PROT_READ);
}

[[maybe_unused]] void CrashBesideALoggingThread()
{
    std::thread other(
        []
        {
            const LogSectionScope section(gFileLogger); // deeper than one: the child must not count down
            LogHiddenPage();
        });
    WaitFor(1);
    ExceptionHandler::SetErrorCallback([](ZelvoReaderErrorCode, char*, void*) { gForkWasGood = ForkAndLog(true); }, nullptr);
    InSignalHandler([] { Dump(true); });
    gStep = 2;
    other.join();
}

} // namespace

TEST_F(CrashDumpTest, AHandlerMayLogAndForkWhileItsThreadOrAnotherIsLogging)
{
    const struct
    {
        int strategy;
        void (*handler)(int, siginfo_t*, void*);
        void (*run)();
        const char* text; // logged in between
    } rows[] = {
        {LOGGING_STRATEGY_APPEND, LogAndShowPage, LogHiddenPage, "from the handler\n"},
        {LOGGING_STRATEGY_FILE_SIZE, LogAndShowPage, LogHiddenPage, "from the handler\n"},
#ifndef __SANITIZE_THREAD__ // it allows no thread in the child of a process with threads
        {LOGGING_STRATEGY_APPEND, ForkAndShowPage, LogHiddenPage, "from the child\n"},
        {LOGGING_STRATEGY_APPEND, WaitAndShowPage, CrashBesideALoggingThread, "from the child\n"},
#endif
    };
    for (const auto& row : rows)
    {
        const std::string name = std::to_string(&row - rows) + ".1.log";
        SetOptions(row.strategy, 1000000, 0); // a dump without the section leaves buffered lines alone
        Start(name);
        const int status = RunPrinting(
            [&]
            {
                HidePage();
                InstallHandler(SIGSEGV, row.handler);
                Log("before");
                row.run();
                const bool good = gForkWasGood && IsFreeForOthers() && Log("after");
                ShutdownLogging();
                return good ? 0 : 1;
            });
        EXPECT_EQ(0, status);
        ExpectOnceInOrder(OnDisk(name), {"before\n", row.text, "interrupted\n00 ", "after\n"});
    }
}

TEST_F(CrashDumpTest, AForkBesideADumpLeavesItsLinesToTheParent)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the thread sanitizer allows no thread in the child of a process with threads";
#endif
    const int status = RunPrinting(
        []
        {
            std::thread other(
                []
                {
                    Crash::Dump::Run(
                        []
                        {
                            Crash::Dump::Current()->Log(0, 1, "", "held by the parent");
                            gStep = 1;
                            WaitFor(2);
                        });
                });
            WaitFor(1);
            bool good = false;
            InSignalHandler(
                [&good]
                {
                    const QV::SignalSafeScope emergency; // as in an error callback
                    QV::SignalSafeScope::WaitLeftMs() = 100;
                    good = ForkAndLog(true);
                });
            gStep = 2;
            other.join();
            return good ? 0 : 1;
        });
    EXPECT_EQ(0, status);
    ExpectOnceInOrder(OnDisk(), {"from the child\n", "held by the parent\n"});
}

// A socket that keeps what is written to it apart shows which lines go out together.
TEST_F(CrashDumpTest, EachPartIsWrittenAtItsEnd)
{
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends));
    const int status = RunChild(
        [&]
        {
            dup2(ends[1], STDOUT_FILENO);
            Dump();
            return 0;
        });
    EXPECT_EQ(0, status);
    for (const char* const last : {"  Fault address:  (nil)\n", "Finished GenerateCallStack\n", "reg[22] = 0x0\n"})
    {
        std::string written;
        do
        {
            char bytes[4096];
            const ssize_t size = read(ends[0], bytes, sizeof bytes);
            ASSERT_GT(size, 0);
            written.assign(bytes, static_cast<std::size_t>(size));
        } while (written.size() > 3000 && !written.ends_with(last)); // a call stack may take several writes
        EXPECT_TRUE(written.ends_with(last)) << written;
    }
    close(ends[0]);
    close(ends[1]);
}

TEST_F(CrashDumpTest, ADumpMovesFromFileToFile)
{
    const int status = RunPrinting(
        [&]
        {
            SetOptions(LOGGING_STRATEGY_FILE_SIZE, 1000);
            Dump();
            return 0;
        });
    EXPECT_EQ(0, status);
    for (int number = 1; number <= 4; ++number)
    {
        const std::size_t size = OnDisk("app." + std::to_string(number) + ".log").size();
        EXPECT_TRUE(size > 0 && size < 1000) << size;
    }
    ExpectOnceInOrder(SeriesOnDisk(),
                      {"  Call stack:\n", "  Registers:\n", "reg[00] = ", "reg[11] = ", "reg[22] = ", "  Modules list:\n"});
}

namespace
{

void OverwriteStandardOutput()
{
    stdout = reinterpret_cast<std::FILE*>(16);
}

void AskToCancel()
{
    pthread_cancel(pthread_self());
}

void LoseAllDescriptors()
{
    const rlimit none = {};
    setrlimit(RLIMIT_NOFILE, &none);
}

} // namespace

TEST_F(CrashDumpTest, GoesOnWhereTheProcessWorksAgainstIt)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the thread sanitizer itself does not survive this";
#endif
    SetOptions(LOGGING_STRATEGY_FILE_SIZE, 1000000);
    for (void (*const obstruct)() : {OverwriteStandardOutput, AskToCancel, LoseAllDescriptors})
    {
        std::filesystem::remove(m_folder / "app.1.log");
        int ends[2];
        ASSERT_EQ(0, pipe(ends));
        const int status = RunChild(
            [&]
            {
                dup2(ends[1], STDOUT_FILENO);
                InstallHandler(SIGSEGV, DumpAndExit);
                Log("before");
                obstruct();
                Fault();
                return 1;
            });
        close(ends[1]);
        std::string printed(65536, '\0');
        printed.resize(static_cast<std::size_t>(std::max<ssize_t>(read(ends[0], printed.data(), printed.size()), 0)));
        close(ends[0]);
        EXPECT_EQ(0, status);
        EXPECT_EQ(2, Count(printed, "Done\nFinished GenerateModuleAddresses\n"));
        EXPECT_EQ(1, Count(OnDisk("app.1.log"), " - before\n"));
        EXPECT_EQ(2, Count(OnDisk("app.1.log"), "  Modules list:"));
    }
}

TEST_F(CrashDumpTest, OtherSignalsWaitUntilItIsWritten)
{
    const int status = RunChild(
        []
        {
            InstallHandler(SIGTERM, [](int, siginfo_t*, void*) { ++gStep; });
            int stepWithin = -1;
            Crash::Dump::Run(
                [&]
                {
                    raise(SIGTERM);
                    raise(SIGTTOU); // stops the process otherwise
                    stepWithin = gStep;
                });
            return stepWithin == 0 && gStep == 1 ? 0 : 2;
        });
    EXPECT_EQ(0, status);
}
