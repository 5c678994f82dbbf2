// CrashHandler.h: what a child process leaves in its log, and how it ends.
#include "ErrorHandlerDll/CrashHandler.h"

#include "ErrorHandlerDll/Log.h"
#include "support/LogTest.h"

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

// Ends with what it has seen: the fault where it was, or a signal sent by this process.
void ExitAsSeen(int signal, siginfo_t* info, void* context)
{
    const greg_t at = static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_RIP];
    const bool isFault = signal == SIGSEGV && info->si_addr == kNeverMapped && at == reinterpret_cast<greg_t>(theFault);
    const bool isSent = info->si_code == SI_USER && info->si_pid == getpid() && info->si_uid == getuid();
    _exit(isFault ? 8 : isSent ? 9 : 1);
}

struct sigaction gBelowHost;

void InstallAboveOneThatCallsThisOne()
{
    sigaction(SIGSEGV, nullptr, &gBelowHost);
    Handle(SIGSEGV, [](int signal, siginfo_t* info, void* context) { gBelowHost.sa_sigaction(signal, info, context); });
    InstallCrashHandlers();
    Fault();
}

// The plugin is closed at once: its handlers must stay.
void InstallFromPlugin()
{
    void* const plugin = dlopen(HEADER_PLUGIN, RTLD_NOW);
    reinterpret_cast<void (*)()>(dlsym(plugin, "InstallFromPlugin"))();
    dlclose(plugin);
}

void OverflowInThread()
{
    const auto overflow = []
    {
        thread_local HostThread thread;
        Overflow(thread.m_stack.IsInPlace() ? 0 : -1);
    };
    std::thread(overflow).join();
}

// What happens before the handlers are installed.
struct Before
{
    static void Nothing() {}
    static void Nothing(int, siginfo_t*, void*) {}
    static void Ignore() { signal(SIGSEGV, SIG_IGN), signal(SIGABRT, SIG_IGN); }
    static void HandleFaultWithInfo() { Handle(SIGSEGV, ExitAsSeen); }
    static void HandleAbortOnce() { Handle(SIGABRT, Nothing, static_cast<int>(SA_RESETHAND)); }
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
    static void InstallAgainAndFault() { InstallCrashHandlers(), InstallFromPlugin(), Fault(); }
    static void ResetAndInstallAndFault() { signal(SIGSEGV, SIG_DFL), InstallCrashHandlers(), Fault(); }
    static void ThrowError() { throw std::runtime_error("page 3"); }
    static void Raise() { RaiseError(ZR_ERROR_FILE_NOT_FOUND, "Layout(88) : Open() - ", "layout.db"); }
    static void ThrowNull() { throw static_cast<HalvikException*>(nullptr); }
    static void ThrowBadAlloc() { throw std::bad_alloc(); }
    static void ThrowNumber() { throw 3; }
};

[[noreturn]] void RunToTheEnd(void (*before)(), void (*after)()) noexcept
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
    after();
    _exit(0);
}

int Count(const std::string& text, const std::string& part)
{
    int count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
    {
        ++count;
    }
    return count;
}

TEST(CrashHandler, DumpsOnceAndLetsTheEarlierActionFollow)
{
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
        {"stack overflow", Before::Nothing, OverflowInThread, SIGSEGV, 0, 1},
        {"ignored, sent", Before::Ignore, After::SendAbortTwice, 0, 0, 0},
        {"ignored, fault", Before::Ignore, Fault, SIGSEGV, 0, 1},
        {"earlier handler sees place and address", Before::HandleFaultWithInfo, Fault, 0, 8, 1},
        {"earlier handler sees the sender", Before::HandleFaultWithInfo, After::Send, 0, 9, 1},
        {"earlier handler for one time", Before::HandleAbortOnce, After::SendAbortTwice, SIGABRT, 0, 1},
        {"callback", Before::InstallWithCallback, Fault, 0, 40 + SEGV_MAPERR, 1},
        {"installed by several", InstallFromPlugin, After::InstallAgainAndFault, SIGSEGV, 0, 1},
        {"reset, installed again", Before::Nothing, After::ResetAndInstallAndFault, SIGSEGV, 0, 1},
        {"above one that calls this one", Before::Nothing, InstallAboveOneThatCallsThisOne, SIGSEGV, 0, 1},
        {"exception", Before::Nothing, After::ThrowError, SIGABRT, 0, 1, "Uncaught std::runtime_error: page 3"},
        {"raised error", Before::Nothing, After::Raise, SIGABRT, 0, 1,
         "Uncaught HalvikException, code 11: Layout(88) : Open() - The file layout.db does not exist"},
        {"null", Before::Nothing, After::ThrowNull, SIGABRT, 0, 1, "Uncaught HalvikException, code 1: "},
        {"number", InstallFromPlugin, After::ThrowNumber, SIGABRT, 0, 1, "Uncaught int"},
        {"no exception", Before::Nothing, std::terminate, SIGABRT, 0, 1, "Terminated without an exception"},
        {"earlier terminate handler", Before::HandleTerminate, After::ThrowBadAlloc, 0, 9, 0,
         "Uncaught std::bad_alloc: std::bad_alloc"},
    };
    for (const auto& row : kRows)
    {
        const CapturedLog folder;
        const std::string name = GetLogFilename();
        const pid_t child = fork();
        if (child == 0)
        {
            RunToTheEnd(row.before, row.after);
        }
        int status = 0;
        EXPECT_EQ(child, waitpid(child, &status, 0));
        EXPECT_EQ(WIFSIGNALED(status) ? WTERMSIG(status) : 0, row.signal) << row.what;
        EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : 0, row.status) << row.what;
        const std::string log = ReadFile(name);
        EXPECT_EQ(Count(log, "StructuredExceptionStructured exception "), row.dumps) << row.what << log;
        EXPECT_EQ(Count(log, row.uncaught), status == 0 ? 0 : 1) << row.what << log;
        EXPECT_EQ(Count(log, "the line before"), status == 0 ? 0 : 1) << row.what;
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
            EXPECT_TRUE(inner.IsInPlace() && current() == ofOuter);
            EXPECT_EQ(ofOuter == own.ss_sp, own.ss_sp == gLarge);
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
