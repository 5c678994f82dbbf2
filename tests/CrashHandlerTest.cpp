// CrashHandler.h: what a child process leaves in its log, and how it ends.
#include "ErrorHandlerDll/CrashHandler.h"

#include "ErrorHandlerDll/Log.h"
#include "support/LogTest.h"

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <stdexcept>
#include <sys/resource.h>
#include <thread>
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

class HostError : public std::runtime_error
{
    using std::runtime_error::runtime_error;
};

void ExitByCallback(ZelvoReaderErrorCode code, char*, void*)
{
    _exit(40 + static_cast<int>(code));
}

void Handle(int signal, void (*handler)(int, siginfo_t*, void*), int flags = 0)
{
    struct sigaction action = {};
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | flags;
    sigaction(signal, &action, nullptr);
}

// Signal handlers of the host.
struct Host
{
    static void Exit(int) { _exit(7); }
    static void ExitAtTheFault(int signal, siginfo_t* info, void* context)
    {
        const greg_t at = static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_RIP];
        const bool isRight = signal == SIGSEGV && info->si_addr == kNeverMapped && at == reinterpret_cast<greg_t>(theFault);
        _exit(isRight ? 8 : 1);
    }
    static void ExitWhenSentByUs(int, siginfo_t* info, void*)
    {
        _exit(info->si_code == SI_USER && info->si_pid == getpid() && info->si_uid == getuid() ? 9 : 1);
    }
    static void GoOn(int, siginfo_t*, void*) {}
    static void CallTheOneBefore(int signal, siginfo_t* info, void* context)
    {
        m_before.sa_sigaction(signal, info, context);
    }
    static inline struct sigaction m_before;
};

// What happens before the handlers are installed.
struct Before
{
    static void Nothing() {}
    static void Ignore() { signal(SIGSEGV, SIG_IGN), signal(SIGABRT, SIG_IGN); }
    static void HandleFault() { signal(SIGSEGV, Host::Exit); }
    static void HandleFaultWithInfo() { Handle(SIGSEGV, Host::ExitAtTheFault); }
    static void HandleSentWithInfo() { Handle(SIGSEGV, Host::ExitWhenSentByUs); }
    static void HandleAbortOnce() { Handle(SIGABRT, Host::GoOn, static_cast<int>(SA_RESETHAND)); }
    // The plugin is closed at once: its handlers must stay.
    static void InstallFromPlugin()
    {
        void* const plugin = dlopen(HEADER_PLUGIN, RTLD_NOW);
        reinterpret_cast<void (*)()>(dlsym(plugin, "InstallFromPlugin"))();
        dlclose(plugin);
    }
    static void InstallWithCallback()
    {
        ExceptionHandler::SetErrorCallback(ExitByCallback, nullptr);
        InstallCrashHandlers(CrashReport::DUMP_AND_CALLBACK);
    }
    static void HandleTerminate()
    {
        std::set_terminate([] { _exit(ExceptionHandler::m_lastErrorCode == ZR_ERROR_MEMORY_ALLOCATION ? 9 : 1); });
        ExceptionHandler::SetErrorCallback(ExitByCallback, nullptr);
    }
};

// What ends the process.
struct After
{
    static void Send() { kill(getpid(), SIGSEGV); }
    static void SendAbortTwice() { kill(getpid(), SIGABRT), kill(getpid(), SIGABRT); }
    static void Trap() { __builtin_trap(); }
    static void InstallAgainAndFault() { InstallCrashHandlers(), Before::InstallFromPlugin(), Fault(); }
    static void ResetAndInstallAndFault() { signal(SIGSEGV, SIG_DFL), InstallCrashHandlers(), Fault(); }
    static void InstallAboveOneThatCallsThisOne()
    {
        sigaction(SIGSEGV, nullptr, &Host::m_before);
        Handle(SIGSEGV, Host::CallTheOneBefore);
        InstallCrashHandlers();
        Fault();
    }
    static void OverflowInMainThread()
    {
        const HostThread thread;
        Overflow(0);
    }
    static void OverflowInThread()
    {
        const auto overflow = []
        {
            thread_local CrashHandlerStack stack;
            Overflow(stack.IsInPlace() ? 0 : -1);
        };
        std::thread(overflow).join();
    }
    static void FaultInTwoThreads()
    {
        static std::atomic<int> waiting = 2;
        const auto crash = []
        {
            for (--waiting; waiting > 0;)
            {
            }
            Fault();
        };
        std::thread other(crash);
        crash();
    }
    static void ThrowError() { throw HostError("page 3"); }
    static void Raise() { RaiseError(ZR_ERROR_FILE_NOT_FOUND, "Layout(88) : Open() - ", "layout.db"); }
    static void ThrowNull() { throw static_cast<HalvikException*>(nullptr); }
    static void ThrowBadAlloc() { throw std::bad_alloc(); }
    static void ThrowNumber() { throw 3; }
    static void LeaveThread()
    {
        const std::thread running([] { pause(); });
    }
};

struct End
{
    int signal; // that ended the process
    int status; // with which it ended
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
};

void RunUncaught(void (*run)()) noexcept
{
    run();
}

End RunToItsEnd(void (*before)(), void (*after)())
{
    const CapturedLog log;
    ShutdownLogging();
    const std::string name = GetLogFilename();
    const pid_t child = fork();
    if (child == 0)
    {
        alarm(30);
        dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
        dup2(STDOUT_FILENO, STDERR_FILENO);
        const rlimit none = {0, 0};
        setrlimit(RLIMIT_CORE, &none);
        ZR_LOG(ZR_LOG_ERROR, 1, "the line before");
        before();
        InstallCrashHandlers();
        InstallTerminateHandler();
        InstallTerminateHandler();
        RunUncaught(after);
        _exit(0);
    }
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    return {WIFSIGNALED(status) ? WTERMSIG(status) : 0, WIFEXITED(status) ? WEXITSTATUS(status) : 0, ReadFile(name)};
}

TEST(CrashHandler, DumpsOnceAndLetsTheEarlierActionFollow)
{
    constexpr int kAny = -1;
    const struct
    {
        const char* what;
        void (*before)();
        void (*after)();
        int signal, status, dumps;
        const char* uncaught = "the line before";
    } kRows[] = {
        {"fault", Before::Nothing, Fault, SIGSEGV, 0, 1},
        {"abort", Before::Nothing, abort, SIGABRT, 0, 1},
        {"sent", Before::Nothing, After::Send, SIGSEGV, 0, 1},
        {"illegal instruction", Before::Nothing, After::Trap, SIGILL, 0, 1},
        {"stack overflow", Before::Nothing, After::OverflowInMainThread, SIGSEGV, 0, 1},
        {"stack overflow of a thread", Before::Nothing, After::OverflowInThread, SIGSEGV, 0, 1},
        {"two threads", Before::Nothing, After::FaultInTwoThreads, SIGSEGV, 0, kAny},
        {"ignored, sent", Before::Ignore, After::SendAbortTwice, 0, 0, 0},
        {"ignored, fault", Before::Ignore, Fault, SIGSEGV, 0, 1},
        {"earlier handler", Before::HandleFault, Fault, 0, 7, 1},
        {"earlier handler sees place and address", Before::HandleFaultWithInfo, Fault, 0, 8, 1},
        {"earlier handler sees the sender", Before::HandleSentWithInfo, After::Send, 0, 9, 1},
        {"earlier handler for one time", Before::HandleAbortOnce, After::SendAbortTwice, SIGABRT, 0, 1},
        {"callback", Before::InstallWithCallback, Fault, 0, 40 + SEGV_MAPERR, 1},
        {"installed by several", Before::InstallFromPlugin, After::InstallAgainAndFault, SIGSEGV, 0, 1},
        {"reset, installed again", Before::Nothing, After::ResetAndInstallAndFault, SIGSEGV, 0, 1},
        {"above one that calls this one", Before::Nothing, After::InstallAboveOneThatCallsThisOne, SIGSEGV, 0, 1},
        {"exception", Before::Nothing, After::ThrowError, SIGABRT, 0, 1,
         "Uncaught (anonymous namespace)::HostError: page 3"},
        {"raised error", Before::Nothing, After::Raise, SIGABRT, 0, 1,
         "Uncaught HalvikException, code 11: Layout(88) : Open() - The file layout.db does not exist"},
        {"null", Before::Nothing, After::ThrowNull, SIGABRT, 0, 1, "Uncaught HalvikException, code 1: "},
        {"number", Before::InstallFromPlugin, After::ThrowNumber, SIGABRT, 0, 1, "Uncaught int"},
        {"no exception", Before::Nothing, After::LeaveThread, SIGABRT, 0, 1, "Terminated without an exception"},
        {"earlier terminate handler", Before::HandleTerminate, After::ThrowBadAlloc, 0, 9, 0,
         "Uncaught std::bad_alloc: std::bad_alloc"},
    };
    for (const auto& row : kRows)
    {
        const End end = RunToItsEnd(row.before, row.after);
        EXPECT_EQ(end.signal, row.signal) << row.what;
        EXPECT_EQ(end.status, row.status) << row.what;
        const int dumps = end.Count("StructuredExceptionStructured exception ");
        EXPECT_TRUE(dumps == row.dumps || (row.dumps == kAny && dumps > 0)) << row.what << end.log;
        const bool isFlushed = row.status != 0 || row.signal != 0;
        EXPECT_EQ(end.Count(row.uncaught), isFlushed ? 1 : 0) << row.what << end.log;
        EXPECT_EQ(end.Count("the line before"), isFlushed ? 1 : 0) << row.what;
    }
}

TEST(CrashHandler, StackComesAndGoes)
{
    const auto current = []
    {
        stack_t stack = {};
        sigaltstack(nullptr, &stack);
        return stack.ss_sp;
    };
    static char gSmall[4096 * 4];
    static char gLarge[1024 * 1024];
    for (const stack_t& own : {stack_t{gSmall, 0, sizeof gSmall}, {gLarge, 0, sizeof gLarge}})
    {
        ASSERT_EQ(0, sigaltstack(&own, nullptr));
        {
            const CrashHandlerStack outer;
            const void* const ofOuter = current();
            const CrashHandlerStack inner;
            EXPECT_TRUE(outer.IsInPlace() && inner.IsInPlace());
            EXPECT_EQ(ofOuter == own.ss_sp, own.ss_sp == gLarge);
            EXPECT_EQ(current(), ofOuter);
        }
        EXPECT_EQ(current(), own.ss_sp);
        const auto stack = std::make_unique<CrashHandlerStack>();
        ASSERT_EQ(0, sigaltstack(&own, nullptr)); // the host has changed its mind
    }
    EXPECT_EQ(current(), gLarge);
    const stack_t none = {nullptr, SS_DISABLE, 0};
    sigaltstack(&none, nullptr);
}

} // namespace
