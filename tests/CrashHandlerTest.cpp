// CrashHandler.h: what a child process leaves in its log, and how it ends.
#include "ErrorHandlerDll/CrashHandler.h"

#include "ErrorHandlerDll/Log.h"
#include "support/Crashes.h"
#include "support/LogTest.h"

#include <fcntl.h>
#include <memory>
#include <stdexcept>
#include <sys/resource.h>
#include <ucontext.h>

// In a header of a host: no warning about the visibility of its member.
struct __attribute__((visibility("default"))) HostThread
{
    CrashHandlerStack m_stack;
};

namespace
{

__attribute__((noinline)) int Overflow(int depth)
{
    volatile char frame[1024] = {};
    frame[0] = static_cast<char>(depth);
    return depth < 0 ? depth : Overflow(depth + 1) + frame[0];
}

void OverflowBesideStack()
{
    const HostThread thread;
    Overflow(thread.m_stack.IsInPlace() ? 0 : -1);
}

// Ends with what it has seen: the fault where it was, or a signal sent by this process.
void ExitAsSeen(int signal, siginfo_t* info, void* context)
{
    const greg_t place = static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_RIP] - reinterpret_cast<greg_t>(Fault);
    const bool isFault = signal == SIGSEGV && info->si_addr == reinterpret_cast<void*>(16UL) && place >= 0 && place < 16;
    const bool isSent = info->si_code == SI_USER && info->si_pid == getpid() && info->si_uid == getuid();
    _exit(isFault ? 8 : isSent ? 9 : 1);
}

void Install()
{
    InstallCrashHandlers();
    InstallTerminateHandler();
}

// The plugin is closed at once: its handlers must stay.
void InstallFromPlugin()
{
    void* const plugin = dlopen(HEADER_PLUGIN, RTLD_NOW);
    reinterpret_cast<void (*)()>(dlsym(plugin, "InstallFromPlugin"))();
    dlclose(plugin);
}

struct sigaction gEarlier;

// Steps to the end of a process, and the handlers among them.
struct Do
{
    static void Nothing(int, siginfo_t*, void*) {}
    static void CallEarlier(int signal, siginfo_t* info, void* context) { gEarlier.sa_sigaction(signal, info, context); }
    static void ExitByCallback(ZelvoReaderErrorCode code, char*, void*) { _exit(40 + code); }
    static void ExitAsTerminated() { _exit(ExceptionHandler::m_lastErrorCode == ZR_ERROR_MEMORY_ALLOCATION ? 9 : 1); }
    static void Ignore() { signal(SIGSEGV, SIG_IGN); }
    static void Reset() { signal(SIGSEGV, SIG_DFL); }
    static void Handle() { InstallHandler(SIGSEGV, ExitAsSeen, SA_ONSTACK); }
    static void HandleOnce() { InstallHandler(SIGSEGV, Nothing, static_cast<int>(SA_RESETHAND)); }
    static void HandleAbove()
    {
        sigaction(SIGSEGV, nullptr, &gEarlier);
        InstallHandler(SIGSEGV, CallEarlier, SA_ONSTACK);
    }
    static void HandleTerminate() { std::set_terminate(ExitAsTerminated); }
    static void InstallWithCallback() { InstallCrashHandlers(CrashReport::DUMP_AND_CALLBACK); }
    static void Send() { kill(getpid(), SIGSEGV); }
    static void Throw() { throw std::runtime_error("page 3"); }
    static void ThrowBadAlloc() { throw std::bad_alloc(); }
    static void ThrowNull() { throw static_cast<HalvikException*>(nullptr); }
    static void ThrowNumber() { throw 3; }
    static void Raise() { RaiseError(ZR_ERROR_FILE_NOT_FOUND, "Open() - ", "a.db"); }
};

using Steps = std::vector<void (*)()>;

int RunSteps(const Steps& steps) noexcept
{
    dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
    dup2(STDOUT_FILENO, STDERR_FILENO);
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    ExceptionHandler::SetErrorCallback(Do::ExitByCallback, nullptr);
    ZR_LOG(ZR_LOG_ERROR, 1, "the line before");
    for (const auto step : steps)
    {
        step();
    }
    return 0;
}

TEST(CrashHandler, DumpsOnceAndLetsTheEarlierActionFollow)
{
    const struct
    {
        const char* what;
        Steps steps;
        int status, dumps;
        const char* logged = "the line before";
    } rows[] = {
        {"abort", {Install, abort}, -SIGABRT, 1},
        {"stack overflow", {Install, OverflowBesideStack}, -SIGSEGV, 1},
        {"ignored, sent", {Do::Ignore, Install, Do::Send, Do::Send}, 0, 0},
        {"ignored, fault", {Do::Ignore, Install, Fault}, -SIGSEGV, 1},
        {"earlier handler sees place and address", {Do::Handle, Install, Fault}, 8, 1},
        {"earlier handler sees the sender", {Do::Handle, Install, Do::Send}, 9, 1},
        {"earlier handler for one time", {Do::HandleOnce, Install, Do::Send, Do::Send}, -SIGSEGV, 1},
        {"callback", {Do::InstallWithCallback, Fault}, 40 + SEGV_MAPERR, 1},
        {"installed by several", {InstallFromPlugin, Install, Install, InstallFromPlugin, Fault}, -SIGSEGV, 1},
        {"reset, installed again", {Install, Do::Reset, Install, Fault}, -SIGSEGV, 1},
        {"above one that calls this one", {Install, Do::HandleAbove, Install, Fault}, -SIGSEGV, 1},
        {"exception", {Install, Install, Do::Throw}, -SIGABRT, 1, "Uncaught std::runtime_error: page 3"},
        {"null", {Install, Do::ThrowNull}, -SIGABRT, 1, "Uncaught HalvikException, code 1: "},
        {"number", {InstallFromPlugin, Install, Do::ThrowNumber}, -SIGABRT, 1, "Uncaught int"},
        {"no exception", {Install, std::terminate}, -SIGABRT, 1, "Terminated without an exception"},
        {"terminate handler", {Do::HandleTerminate, Install, Do::ThrowBadAlloc}, 9, 0, "Uncaught std::bad_alloc: std::"},
        {"raised", {Install, Do::Raise}, -SIGABRT, 1, "HalvikException, code 11: Open() - The file a.db does not exist"},
    };
    for (const auto& row : rows)
    {
        const CapturedLog folder;
        const std::string name = GetLogFilename();
        EXPECT_EQ(row.status, RunChild([&row] { return RunSteps(row.steps); })) << row.what;
        const std::string log = ReadFile(name);
        EXPECT_EQ(row.dumps, Count(log, "StructuredExceptionStructured exception ")) << row.what << log;
        EXPECT_EQ(row.status == 0 ? 0 : 1, Count(log, row.logged)) << row.what << log;
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
    static char small[4096 * 4];
    static char large[1024 * 1024];
    for (const stack_t& own : {stack_t{small, 0, sizeof small}, {large, 0, sizeof large}})
    {
        sigaltstack(&own, nullptr);
        {
            const CrashHandlerStack outer;
            const void* const ofOuter = current();
            const CrashHandlerStack inner;
            EXPECT_TRUE(inner.IsInPlace() && current() == ofOuter);
            EXPECT_EQ(ofOuter == own.ss_sp, own.ss_sp == large);
        }
        EXPECT_EQ(current(), own.ss_sp);
        const auto stack = std::make_unique<CrashHandlerStack>();
        sigaltstack(&own, nullptr); // the host has changed its mind
    }
    EXPECT_EQ(current(), large);
}

} // namespace
