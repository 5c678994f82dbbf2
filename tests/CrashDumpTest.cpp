// What a dump does when its surroundings are damaged or unusual. Faults at arbitrary instructions: the harness that crashes.
#include "ErrorHandlerDll/ExceptionHandler.h"
#include "ErrorHandlerDll/LinuxStructuredException.h"
#include "ErrorHandlerDll/crash/Dump.h"
#include "ErrorHandlerDll/logging/ProcessLog.h"
#include "support/LogTest.h"
#include "support/SignalHandler.h"

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <utility>

namespace
{

using CrashDumpTest = LogTest;

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

void HandleException(int signal, siginfo_t* info, void* context)
{
    StructuredException exception(signal, static_cast<ucontext_t*>(context), info);
    ExceptionHandler::HandleStructuredException("Handler", exception, false);
}

void HandleAndExit(int signal, siginfo_t* info, void* context)
{
    HandleException(signal, info, context);
    _exit(0);
}

void Dump()
{
    siginfo_t info = {};
    ucontext_t context = {};
    const StructuredException exception(SIGSEGV, &context, &info);
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

// Runs `body` in a child process, with a pipe for its standard output, and returns what it has printed.
//   body  gets the pipe's ends, and returns the status to end with
std::string PrintedBy(const std::function<int(int, int)>& body)
{
    int ends[2];
    EXPECT_EQ(0, pipe2(ends, O_NONBLOCK));
    const auto run = [&]
    {
        dup2(ends[1], STDOUT_FILENO);
        return body(ends[0], ends[1]);
    };
    EXPECT_EQ(0, RunChild(run));
    std::string text(65536, '\0');
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(read(ends[0], text.data(), text.size()), 0)));
    close(ends[0]);
    close(ends[1]);
    return text;
}

} // namespace

TEST_F(CrashDumpTest, AFaultInAPartGoesBackToTheDump)
{
    const std::string printed = PrintedBy(
        [](int, int)
        {
            static volatile int terminated = 0;
            InstallHandler(SIGSEGV, HandleAndExit);
            InstallHandler(SIGTERM, [](int, siginfo_t*, void*) { terminated = terminated + 1; });
            const unsigned int depth = gFileLogger.Emergency().GetSectionDepth();
            bool isRight = true;
            const auto faultyPart = []
            {
                gFileLogger.EnterCriticalSection(); // skipped by the jump
                Crash::RunPart(Fault);        // the innermost place counts
                Fault();
            };
            const auto dump = [&]
            {
                errno = EILSEQ;
                raise(SIGTERM);
                raise(SIGTTOU); // would stop the process
                isRight = isRight && !Crash::RunPart(faultyPart) && terminated == 0;
            };
            errno = ERANGE;
            for (int i = 0; i < 3; ++i)
            {
                Crash::Dump::Run(dump);
                isRight = isRight && terminated == 1 && errno == ERANGE && Crash::DumpStack::Current() == nullptr &&
                          gFileLogger.Emergency().GetSectionDepth() == depth;
                terminated = 0;
            }
            Dump();
            return isRight ? 0 : 1;
        });
    EXPECT_EQ(1, Count(OnDisk(), "  Modules list:")); // that of the dump alone: the faults made none of their own
    EXPECT_EQ(1, Count(printed, "Finished GenerateModuleAddresses"));
}

namespace
{

sigjmp_buf gRecovery;

void JumpOut(int, siginfo_t*, void*)
{
    siglongjmp(gRecovery, 1);
}

void HandleAndJump(int signal, siginfo_t* info, void* context)
{
    HandleException(signal, info, context);
    siglongjmp(gRecovery, 1);
}

void FaultInDump()
{
    Crash::Dump::Run([] { Fault(); });
}

void FaultInHexDump()
{
    LogMessageAndBufferAsHex(ZR_LOG_ERROR, 1, "", "cut", reinterpret_cast<unsigned char*>(16), 1);
}

void FaultInCallback(ZelvoReaderErrorCode, char*, void*)
{
    QV::SignalSafeScope::WaitLeftMs() = 0; // as after a thread that was waited for in vain
    Fault();
}

} // namespace

TEST_F(CrashDumpTest, NothingStaysHeldWhereAJumpLeft)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the thread sanitizer allows no thread in the child of a process with threads";
#endif
    const struct
    {
        const char* what;
        void (*fault)();
        void (*handler)(int, siginfo_t*, void*);
        void (*callback)(ZelvoReaderErrorCode, char*, void*);
        long refused; // dumps, of handlers within handlers
    } rows[] = {
#ifndef __SANITIZE_ADDRESS__ // a dump stays on the thread's stack there, where its frames cannot be told from others
        {"the dump", FaultInDump, JumpOut, nullptr, 0},
#endif
        {"a log call", FaultInHexDump, HandleAndJump, nullptr, 0},
        {"handlers within handlers", Fault, HandleAndJump, FaultInCallback, 2},
    };
    static const std::string longText(5000, 'x');
    for (const auto& row : rows)
    {
        std::filesystem::remove(m_folder / "app.log");
        const std::string printed = PrintedBy(
            [&](int, int)
            {
                static char memory[65536];
                stack_t alternate = {memory, 0, sizeof memory};
                sigaltstack(&alternate, nullptr);
                InstallHandler(SIGSEGV, row.handler);
                ExceptionHandler::SetErrorCallback(row.callback, nullptr);
                static int waitLeftMs = 0;
                for (static int round = 0; round < 2; ++round) // a jump keeps it
                {
                    if (sigsetjmp(gRecovery, 1) == 0)
                    {
                        row.fault();
                    }
                    const auto dump = []
                    {
                        Crash::Dump::Run([] { waitLeftMs = QV::SignalSafeScope::WaitLeftMs(); });
                    };
                    // A handler that returns sets the signal stack back to what it found.
                    row.callback != nullptr ? InSignalHandler(dump) : dump();
                    std::thread([] { Log("other"); }).join();
                    Log(longText); // whole, as in no handler
                }
                ShutdownLogging();
                sigaltstack(nullptr, &alternate);
                return waitLeftMs <= 0 ? 1 : alternate.ss_sp == memory && alternate.ss_flags == 0 ? 0 : 2;
            });
        EXPECT_EQ(2, Count(OnDisk(), " - other\n")) << row.what;
        EXPECT_EQ(2, Count(OnDisk(), longText + "\n")) << row.what;
        EXPECT_EQ(row.refused, Count(printed, " occurred at 0x10\n  No dump: too many")) << row.what;
    }
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

void DamageTheLogger()
{
    std::memset(static_cast<void*>(&gFileLogger), 1, 64);
}

// No file has so long a name. Building the next one must not throw in a handler.
void LogToNowhere()
{
    InitialiseLogging(true, ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, std::string(10000, 'x').c_str());
}

} // namespace

TEST_F(CrashDumpTest, GoesOnWhereTheProcessWorksAgainstIt)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the thread sanitizer itself does not survive this";
#endif
    const struct
    {
        const char* what;
        void (*obstruct)();
        int logged;
    } rows[] = {
        {"standard output", OverwriteStandardOutput, 2},
        {"cancelled", AskToCancel, 2},
        {"descriptors", LoseAllDescriptors, 2},
        {"logger", DamageTheLogger, 0},
        {"name", LogToNowhere, 0},
    };
    SetOptions(LOGGING_STRATEGY_FILE_SIZE, 1000000);
    for (const auto& row : rows)
    {
        std::filesystem::remove(m_folder / "app.1.log");
        const std::string printed = PrintedBy(
            [&](int, int)
            {
                InstallHandler(SIGSEGV, HandleAndExit);
                Log("before");
                row.obstruct();
                Fault();
                return 1;
            });
        for (const char* const text : {"  Fault address:  0x10", "reg[22] = ", "Done\nFinished GenerateModuleAddresses\n"})
        {
            EXPECT_EQ(2, Count(printed, text)) << row.what;
        }
        EXPECT_EQ(row.logged, Count(OnDisk("app.1.log"), "  Modules list:")) << row.what;
    }
}

TEST_F(CrashDumpTest, LeavesToTheHostsStreamWhatItsReaderDoesNotTake)
{
    static std::string buffer(1 << 20, 'x');
    std::fflush(stdout);
    const std::string printed = PrintedBy(
        [](int reader, int writer)
        {
            while (write(writer, buffer.data(), 4096) > 0)
            {
            }
            std::fputs("the host's own", stdout);
            Dump();
            const bool isRead = read(reader, buffer.data(), buffer.size()) > 0;
            std::fflush(stdout);
            return isRead ? 0 : 1;
        });
    EXPECT_EQ("the host's own", printed);
}

TEST_F(CrashDumpTest, PrintsToAStreamWithoutADescriptor)
{
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* const standard = std::exchange(stdout, open_memstream(&text, &size));
    std::fputs("before\n", stdout);
    Dump();
    std::fclose(std::exchange(stdout, standard));
    const std::string printed(text, size);
    std::free(text);
    EXPECT_TRUE(printed.starts_with("before\nStructuredException::StructuredException\nStructured exception ")) << printed;
    EXPECT_TRUE(printed.ends_with("Done\nFinished GenerateModuleAddresses\n")) << printed;
}

// A socket that keeps what is written to it apart shows which lines go out together.
TEST_F(CrashDumpTest, EachPartIsWrittenAtItsEnd)
{
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends));
    const auto printAndDump = [&]
    {
        std::printf("of the host, ");
        dup2(ends[1], STDOUT_FILENO);
        Dump();
        return 0;
    };
    EXPECT_EQ(0, RunChild(printAndDump));
    std::string parts;
    char written[4096];
    for (ssize_t size = 0; (size = read(ends[0], written, sizeof written)) > 0;)
    {
        parts += std::string(written, static_cast<std::size_t>(size)) + "|";
    }
    for (const char* const last :
         {"of the host, |", "  Fault address:  (nil)\n|", "Finished GenerateCallStack\n|", "reg[22] = 0x0\n|"})
    {
        EXPECT_EQ(1, Count(parts, last)) << parts;
    }
    close(ends[0]);
    close(ends[1]);
}
