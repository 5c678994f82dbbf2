// What a dump does when its surroundings are damaged or unusual. Faults at arbitrary instructions: the harness that crashes.
#include "ErrorHandlerDll/ExceptionHandler.h"
#include "ErrorHandlerDll/LinuxStructuredException.h"
#include "ErrorHandlerDll/crash/Dump.h"
#include "ErrorHandlerDll/logging/ProcessLog.h"
#include "support/Crashes.h"
#include "support/LogTest.h"

#include <cerrno>
#include <csetjmp>
#include <cstring>
#include <functional>
#include <sys/socket.h>
#include <utility>

namespace
{

using CrashDumpTest = LogTest;

void FaultInCallback(ZelvoReaderErrorCode, char*, void*)
{
    Fault();
}

void HandleAndExit(int signal, siginfo_t* info, void* context)
{
    StructuredException exception(signal, static_cast<ucontext_t*>(context), info);
    ExceptionHandler::HandleStructuredException("Handler", exception, false);
    _exit(0);
}

void Dump()
{
    siginfo_t info = {};
    ucontext_t context = {};
    const StructuredException exception(SIGSEGV, &context, &info);
}

// Runs `body`, whose result is the exit status, in a child process, and returns what it has printed, with a bar behind each
// write. It gets the socket that its standard output can be read from.
std::string PrintedBy(const std::function<int(int)>& body)
{
    int ends[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends)); // keeps writes apart
    const auto run = [&]
    {
        dup2(ends[1], STDOUT_FILENO);
        return body(ends[0]);
    };
    EXPECT_EQ(0, RunChild(run));
    std::string printed;
    char written[4096];
    for (ssize_t size = 0; (size = read(ends[0], written, sizeof written)) > 0;)
    {
        printed += std::string(written, static_cast<std::size_t>(size)) + "|";
    }
    close(ends[0]);
    close(ends[1]);
    return printed;
}

} // namespace

TEST_F(CrashDumpTest, AFaultInAPartGoesBackToTheDump)
{
    const auto faultInParts = [](int)
    {
        static volatile int terminated = 0;
        InstallHandler(SIGSEGV, HandleAndExit, 0); // a mask that is not restored ends the process at the next fault
        InstallHandler(SIGTERM, [](int, siginfo_t*, void*) { terminated = terminated + 1; });
        const unsigned int depth = gFileLogger.Emergency().GetSectionDepth();
        bool isRight = true;
        const auto faultyPart = []
        {
            gFileLogger.EnterCriticalSection(); // skipped by the jump
            Crash::RunPart(Fault);              // the innermost place counts
            const QV::SignalSafeScope ordinaryCall(false);
            Fault();
        };
        const auto dump = [&]
        {
            errno = EILSEQ;
            raise(SIGTERM);
            raise(SIGTTOU); // would stop the process
            isRight = isRight && !Crash::RunPart(faultyPart) && terminated == 0 && QV::SignalSafeScope::GetState();
        };
        errno = ERANGE;
        for (int i = 0; i < 2; ++i) // a section that is not left shows the second time
        {
            Crash::Dump::Run(dump);
            isRight = isRight && terminated == 1 && errno == ERANGE && Crash::DumpStack::Current() == nullptr &&
                      gFileLogger.Emergency().GetSectionDepth() == depth;
            terminated = 0;
        }
        Dump();
        return isRight ? 0 : 1;
    };
    EXPECT_EQ(1, Count(PrintedBy(faultInParts), "Finished GenerateModuleAddresses")); // the faults made none of their own
    EXPECT_EQ(1, Count(OnDisk(), "  Modules list:"));
}

TEST_F(CrashDumpTest, AJumpOutOfItLeavesNothingHeld)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "a dump stays on the thread's stack, where its frames cannot be told from others";
#endif
    static sigjmp_buf place;
    const auto jumpOutAgainAndAgain = []
    {
        static char memory[65536];
        stack_t alternate = {memory, 0, sizeof memory};
        sigaltstack(&alternate, nullptr);
        InstallHandler(SIGSEGV, [](int, siginfo_t*, void*) { siglongjmp(place, 1); });
        for (static int jumps = 0; jumps < 5; ++jumps) // there are four stacks for dumps
        {
            if (sigsetjmp(place, 1) == 0)
            {
                Crash::Dump::Run([] { Fault(); });
            }
        }
        static int waitLeftMs = 0;
        const auto dumpInHandler = [](int signal, siginfo_t* info, void* context)
        {
            const StructuredException exception(signal, static_cast<ucontext_t*>(context), info);
            QV::SignalSafeScope::WaitLeftMs() = 0; // as after a thread that was waited for in vain
            Crash::Dump::Run([] { waitLeftMs = QV::SignalSafeScope::WaitLeftMs(); });
        };
        InstallHandler(SIGUSR1, dumpInHandler);
        raise(SIGUSR1); // the return of its handler must not take the signal stack away again
        sigaltstack(nullptr, &alternate);
        return waitLeftMs > 0 && alternate.ss_sp == memory && alternate.ss_flags == 0 ? 0 : 1;
    };
    EXPECT_EQ(0, RunChild(jumpOutAgainAndAgain));
}

TEST_F(CrashDumpTest, GoesOnWhereTheProcessWorksAgainstIt)
{
    const struct
    {
        const char* what;
        void (*obstruct)();
        int printed, logged, refused;
    } rows[] = {
        {"standard output", [] { stdout = reinterpret_cast<std::FILE*>(16); }, 2, 2, 0},
        {"cancelled", [] { pthread_cancel(pthread_self()); }, 2, 2, 0},
        {"logger", [] { std::memset(static_cast<void*>(&gFileLogger), 1, 64); }, 2, 0, 0},
        {"name", [] { InitialiseLogging(true, 5, ZR_LOG_ALL_CATEGORIES, std::string(10000, 'x').c_str()); }, 2, 0, 0},
        {"callback", [] { ExceptionHandler::SetErrorCallback(FaultInCallback, nullptr); }, 6, 6, 1},
    };
    SetOptions(LOGGING_STRATEGY_FILE_SIZE, 1000000);
    for (const auto& row : rows)
    {
        std::filesystem::remove(m_folder / "app.1.log");
        const auto obstructAndFault = [&](int)
        {
            InstallHandler(SIGSEGV, HandleAndExit);
            Log("before");
            row.obstruct();
            Fault();
            return 1;
        };
        const std::string printed = PrintedBy(obstructAndFault);
        // Each part is written at its end.
        for (const char* const text : {"  Fault address:  0x10\n|", "Finished GenerateCallStack\n|",
                                       "|GenerateModuleAddresses...", "Done\nFinished GenerateModuleAddresses\n|"})
        {
            EXPECT_EQ(row.printed, Count(printed, text)) << row.what;
        }
        EXPECT_EQ(row.logged, Count(OnDisk("app.1.log"), "  Modules list:")) << row.what;
        EXPECT_EQ(row.refused, Count(printed, " occurred at 0x10\n  No dump: too many")) << row.what;
    }
}

TEST_F(CrashDumpTest, LeavesToTheHostsStreamWhatItsReaderDoesNotTake)
{
    std::fflush(stdout);
    const auto dumpWhileNobodyReads = [](int reader)
    {
        char some[4096] = "";
        while (write(STDOUT_FILENO, some, sizeof some) > 0)
        {
        }
        std::fputs("the host's own", stdout);
        Dump();
        while (read(reader, some, sizeof some) > 0)
        {
        }
        std::fflush(stdout);
        return 0;
    };
    EXPECT_EQ("the host's own|", PrintedBy(dumpWhileNobodyReads));
}

TEST_F(CrashDumpTest, PrintsToAStreamWithoutADescriptor)
{
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* const standard = std::exchange(stdout, open_memstream(&text, &size));
    Dump();
    std::fclose(std::exchange(stdout, standard));
    EXPECT_TRUE(std::string_view(text).starts_with("StructuredException::StructuredException\nStructured exception "))
        << text;
    EXPECT_TRUE(std::string_view(text).ends_with("Done\nFinished GenerateModuleAddresses\n")) << text;
    std::free(text);
}
