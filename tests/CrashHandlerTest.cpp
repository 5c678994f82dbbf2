// CrashHandler.h: what a child process leaves in its log, and how it ends.
#include "ErrorHandlerDll/CrashHandler.h"

#include "ErrorHandlerDll/Log.h"
#include "support/LogTest.h"

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <tuple>
#include <ucontext.h>

// In a header of a host: no warning about the visibility of its member.
struct __attribute__((visibility("default"))) HostThread
{
    CrashHandlerStack m_stack;
};

namespace
{

char* const kNeverMapped = reinterpret_cast<char*>(0x9300); // NOLINT(performance-no-int-to-ptr)
extern "C" char theFault[];

__attribute__((noinline)) void Fault()
{
    asm volatile(".globl theFault\ntheFault: movb $1, (%0)" : : "r"(kNeverMapped) : "memory");
}

__attribute__((noinline)) int Overflow(int depth)
{
    volatile char frame[1024] = {};
    frame[0] = static_cast<char>(depth);
    return depth < 0 ? depth : Overflow(depth + 1) + frame[0];
}

void Send(int signal)
{
    kill(getpid(), signal);
}

struct End
{
    int signal = 0; // that ended the process
    int status = 0; // with which it ended
    std::string log;

    int Count(const std::string& text) const
    {
        int count = 0;
        for (std::size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1))
        {
            ++count;
        }
        return count;
    }
    int Dumps() const { return Count("StructuredExceptionStructured exception "); }
};

End RunToItsEnd(const std::function<void()>& body)
{
    const CapturedLog log;
    ShutdownLogging();
    const std::string name = GetLogFilename();
    const pid_t child = fork();
    if (child == 0)
    {
        alarm(30);
        const int nowhere = open("/dev/null", O_WRONLY);
        dup2(nowhere, STDOUT_FILENO);
        dup2(nowhere, STDERR_FILENO);
        const rlimit none = {0, 0};
        setrlimit(RLIMIT_CORE, &none);
        ZR_LOG(ZR_LOG_ERROR, 1, "the line before");
        body();
        _exit(0);
    }
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    return {WIFSIGNALED(status) ? WTERMSIG(status) : 0, WIFEXITED(status) ? WEXITSTATUS(status) : 0, ReadFile(name)};
}

void Handle(int signal, void (*handler)(int), int flags = 0)
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigaction(signal, &action, nullptr);
}

void HandleWithInfo(int signal, void (*handler)(int, siginfo_t*, void*))
{
    struct sigaction action = {};
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigaction(signal, &action, nullptr);
}

void ExitWith7(int)
{
    _exit(7);
}

void ExitWith8AtTheFault(int signal, siginfo_t* info, void* context)
{
    const greg_t at = static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_RIP];
    const bool isRight = signal == SIGSEGV && info->si_addr == kNeverMapped && at == reinterpret_cast<greg_t>(theFault);
    _exit(isRight ? 8 : 1);
}

void ExitWith9WhenSentByUs(int, siginfo_t* info, void*)
{
    sigset_t mask;
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    _exit(info->si_code == SI_USER && info->si_pid == getpid() && info->si_uid == getuid() ? 9 : 1);
}

struct sigaction gBelowHost;

void CallTheOneBefore(int signal, siginfo_t* info, void* context)
{
    gBelowHost.sa_sigaction(signal, info, context);
}

// The plugin is closed at once: its handlers must stay.
void InstallFromPlugin()
{
    void* const plugin = dlopen(HEADER_PLUGIN, RTLD_NOW);
    reinterpret_cast<void (*)()>(dlsym(plugin, "InstallFromPlugin"))();
    dlclose(plugin);
}

// What happens before and after InstallCrashHandlers.
void Nothing() {}
void Ignore()
{
    Handle(SIGSEGV, SIG_IGN), Handle(SIGABRT, SIG_IGN);
}
void HandleFault()
{
    Handle(SIGSEGV, ExitWith7);
}
void HandleFaultWithInfo()
{
    HandleWithInfo(SIGSEGV, ExitWith8AtTheFault);
}
void HandleSentWithInfo()
{
    HandleWithInfo(SIGSEGV, ExitWith9WhenSentByUs);
}
void HandleAbortOnce()
{
    Handle(
        SIGABRT, [](int) {}, static_cast<int>(SA_RESETHAND));
}
void SendFault()
{
    Send(SIGSEGV);
}
void SendAbortTwice()
{
    Send(SIGABRT), Send(SIGABRT);
}
void Trap()
{
    __builtin_trap();
}
void InstallAgainAndFault()
{
    InstallCrashHandlers(), InstallFromPlugin(), Fault();
}
void ResetAndInstallAndFault()
{
    signal(SIGSEGV, SIG_DFL), InstallCrashHandlers(), Fault();
}

void InstallAboveOneThatCallsThisOne()
{
    sigaction(SIGSEGV, nullptr, &gBelowHost);
    HandleWithInfo(SIGSEGV, CallTheOneBefore);
    InstallCrashHandlers();
    Fault();
}

void OverflowInThread()
{
    const auto overflow = []
    {
        thread_local CrashHandlerStack stack;
        Overflow(stack.IsInPlace() ? 0 : -1);
    };
    std::thread(overflow).join();
}

void OverflowInMainThread()
{
    const HostThread thread;
    Overflow(0);
}

TEST(CrashHandler, DumpsOnceAndLetsTheEarlierActionFollow)
{
    const struct
    {
        const char* what;
        void (*before)();
        void (*after)();
        int signal, status, dumps;
    } kRows[] = {
        {"fault", Nothing, Fault, SIGSEGV, 0, 1},
        {"abort", Nothing, abort, SIGABRT, 0, 1},
        {"sent", Nothing, SendFault, SIGSEGV, 0, 1},
        {"illegal instruction", Nothing, Trap, SIGILL, 0, 1},
        {"stack overflow", Nothing, OverflowInMainThread, SIGSEGV, 0, 1},
        {"stack overflow of a thread", Nothing, OverflowInThread, SIGSEGV, 0, 1},
        {"ignored, sent", Ignore, SendAbortTwice, 0, 0, 0},
        {"ignored, fault", Ignore, Fault, SIGSEGV, 0, 1},
        {"earlier handler", HandleFault, Fault, 0, 7, 1},
        {"earlier handler sees place and address", HandleFaultWithInfo, Fault, 0, 8, 1},
        {"earlier handler sees the sender", HandleSentWithInfo, SendFault, 0, 9, 1},
        {"earlier handler for one time", HandleAbortOnce, SendAbortTwice, SIGABRT, 0, 1},
        {"installed by several", InstallFromPlugin, InstallAgainAndFault, SIGSEGV, 0, 1},
        {"reset, installed again", Nothing, ResetAndInstallAndFault, SIGSEGV, 0, 1},
        {"installed above one that calls this one", Nothing, InstallAboveOneThatCallsThisOne, SIGSEGV, 0, 1},
    };
    for (const auto& row : kRows)
    {
        const End end = RunToItsEnd(
            [&row]
            {
                row.before();
                InstallCrashHandlers();
                row.after();
            });
        EXPECT_EQ(end.signal, row.signal) << row.what;
        EXPECT_EQ(end.status, row.status) << row.what;
        EXPECT_EQ(end.Dumps(), row.dumps) << row.what << end.log;
        EXPECT_EQ(end.Count("the line before"), row.dumps) << row.what;
    }
}

TEST(CrashHandler, ReportsToTheCallbackWhenTold)
{
    const End end = RunToItsEnd(
        []
        {
            ExceptionHandler::SetErrorCallback(
                [](ZelvoReaderErrorCode code, char*, void*) { _exit(40 + static_cast<int>(code)); }, nullptr);
            InstallCrashHandlers(CrashReport::DUMP_AND_CALLBACK);
            Fault();
        });
    EXPECT_EQ(end.status, 40 + SEGV_MAPERR);
}

TEST(CrashHandler, EndsWhenThreadsCrashTogether)
{
    const End end = RunToItsEnd(
        []
        {
            InstallCrashHandlers();
            std::atomic<int> waiting = 2;
            const auto crash = [&waiting]
            {
                --waiting;
                while (waiting > 0)
                {
                }
                Fault();
            };
            std::thread first(crash);
            std::thread second(crash);
            first.join();
            second.join();
        });
    EXPECT_EQ(end.signal, SIGSEGV);
    EXPECT_GE(end.Dumps(), 1);
}

TEST(CrashHandler, StackComesAndGoes)
{
    const auto current = []
    {
        stack_t stack = {};
        sigaltstack(nullptr, &stack);
        return stack;
    };
    const stack_t before = current();
    static char gSmall[4096 * 4];
    static char gLarge[1024 * 1024];
    for (const auto& [memory, size, isKept] : {std::tuple(gSmall, sizeof gSmall, false), {gLarge, sizeof gLarge, true}})
    {
        stack_t own = {};
        own.ss_sp = memory;
        own.ss_size = size;
        ASSERT_EQ(0, sigaltstack(&own, nullptr));
        {
            const CrashHandlerStack outer;
            const void* const ofOuter = current().ss_sp;
            const CrashHandlerStack inner;
            EXPECT_TRUE(outer.IsInPlace() && inner.IsInPlace());
            EXPECT_EQ(ofOuter == memory, isKept);
            EXPECT_EQ(current().ss_sp, ofOuter);
        }
        EXPECT_EQ(current().ss_sp, memory);
        const auto stack = std::make_unique<CrashHandlerStack>();
        ASSERT_EQ(0, sigaltstack(&own, nullptr)); // the host has changed its mind
    }
    EXPECT_EQ(current().ss_sp, gLarge);
    stack_t disabled = {};
    disabled.ss_flags = SS_DISABLE;
    sigaltstack((before.ss_flags & SS_DISABLE) != 0 ? &disabled : &before, nullptr);
}

class HostError : public std::runtime_error
{
    using std::runtime_error::runtime_error;
};

void RunUncaught(void (*raise)()) noexcept
{
    raise();
}

TEST(TerminateHandler, WritesWhatWasNotCaught)
{
    const struct
    {
        const char* expected;
        void (*raise)();
    } kRows[] = {
        {"Uncaught (anonymous namespace)::HostError: page 3",
         []
         {
             throw HostError("page 3");
         }},
        {"Uncaught HalvikException, code 11: Layout(88) : Open() - The file layout.db does not exist",
         []
         {
             RaiseError(ZR_ERROR_FILE_NOT_FOUND, "Layout(88) : Open() - ", "layout.db");
         }},
        {"Uncaught HalvikException, code 1: ",
         []
         {
             throw static_cast<HalvikException*>(nullptr);
         }},
        {"Uncaught std::bad_alloc: std::bad_alloc",
         []
         {
             throw std::bad_alloc();
         }},
        {"Uncaught int",
         []
         {
             throw 3;
         }},
        {"Terminated without an exception",
         []
         {
             const std::thread running([] { pause(); });
         }},
    };
    for (const auto& row : kRows)
    {
        const End end = RunToItsEnd(
            [&row]
            {
                InstallTerminateHandler();
                InstallTerminateHandler();
                RunUncaught(row.raise);
            });
        EXPECT_EQ(end.signal, SIGABRT) << row.expected;
        EXPECT_EQ(end.Count(row.expected), 1) << end.log;
        EXPECT_EQ(end.Count("the line before"), 1);
    }
}

TEST(TerminateHandler, LeavesTheOthersTheirTurn)
{
    const End end = RunToItsEnd(
        []
        {
            std::set_terminate([] { _exit(ExceptionHandler::m_lastErrorCode == ZR_ERROR_MEMORY_ALLOCATION ? 9 : 1); });
            InstallTerminateHandler();
            InstallFromPlugin();
            ExceptionHandler::SetErrorCallback([](ZelvoReaderErrorCode, char*, void*) { pause(); }, nullptr);
            RunUncaught([] { throw std::bad_alloc(); });
        });
    EXPECT_EQ(end.status, 9);
    EXPECT_EQ(end.Count("Uncaught std::bad_alloc"), 1) << end.log;
}

TEST(TerminateHandler, IsFollowedByTheDumpOfTheAbort)
{
    const End end = RunToItsEnd(
        []
        {
            InstallCrashHandlers();
            InstallTerminateHandler();
            RunUncaught([] { throw 5; });
        });
    EXPECT_EQ(end.signal, SIGABRT);
    EXPECT_EQ(end.Count("Uncaught int"), 1);
    EXPECT_EQ(end.Dumps(), 1);
}

} // namespace
