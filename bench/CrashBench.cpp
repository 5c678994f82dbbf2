// From the fault to the end of the process, report included: bench_crash FOLDER [quick]. Each crash is a child of its own.
#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/ExceptionHandler.h"
#include "ErrorHandlerDll/LinuxStructuredException.h"
#include "bench/Harness.h"

#ifdef BENCH_HAS_GLOG
#include <glog/logging.h>
#endif
#ifdef BENCH_HAS_ABSL
#include <absl/debugging/failure_signal_handler.h>
#include <absl/debugging/symbolize.h>
#endif
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <execinfo.h>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <link.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;

using SignalHandler = void (*)(int, siginfo_t*, void*);

constexpr int kMaxFrames = 100;
int gLogDescriptor = -1;

void EndBySignal(int signal)
{
    ::signal(signal, SIG_DFL);
    raise(signal);
}

void Install(SignalHandler handler)
{
    struct sigaction action = {};
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    sigaction(SIGSEGV, &action, nullptr);
}

// ---- This library, as a host uses it: the constructor reports, the handler reports in its block ----

void ReportWithLibrary(int signal, siginfo_t* info, void* context)
{
    StructuredException exception(signal, static_cast<ucontext_t*>(context), info);
    ExceptionHandler::HandleStructuredException("Bench::OnSignal() - ", exception, false);
    EndBySignal(signal);
}

void PrepareLibrary(const fs::path& folder)
{
    InitialiseLogging(true, ZR_LOG_WARNING, 1, (folder / "bench.log").c_str());
    LogMessage(ZR_LOG_WARNING, 1, "", "before the fault");
    Install(ReportWithLibrary);
}

// ---- The limit: the same content by system calls, one write for each destination; twice, as the host's library does ----

struct Report
{
    [[gnu::format(printf, 2, 3)]] void Line(const char* format, ...)
    {
        va_list arguments;
        va_start(arguments, format);
        used += static_cast<std::size_t>(std::vsnprintf(text + used, sizeof text - used, format, arguments));
        va_end(arguments);
    }
    std::size_t used = 0;
    char text[64 * 1024];
};

int PutModule(dl_phdr_info* module, std::size_t, void* report)
{
    static_cast<Report*>(report)->Line("%#lx %s\n", static_cast<unsigned long>(module->dlpi_addr), module->dlpi_name);
    return 0;
}

void WriteBareReport(int signal, const siginfo_t& info, const ucontext_t& context)
{
    static Report report;
    report.used = 0;
    report.Line("signal %d code %d address %p\n", signal, info.si_code, info.si_addr);
    for (int i = 0; i < NGREG; ++i)
    {
        report.Line("reg[%02d] = 0x%llx\n", i, static_cast<unsigned long long>(context.uc_mcontext.gregs[i]));
    }
    dl_iterate_phdr(PutModule, &report);
    void* frames[kMaxFrames];
    const int frameCount = backtrace(frames, kMaxFrames);
    for (const int descriptor : {STDOUT_FILENO, gLogDescriptor})
    {
        backtrace_symbols_fd(frames, frameCount, descriptor);
        static_cast<void>(!write(descriptor, report.text, report.used));
    }
}

void ReportBare(int signal, siginfo_t* info, void* context)
{
    WriteBareReport(signal, *info, *static_cast<ucontext_t*>(context));
    WriteBareReport(signal, *info, *static_cast<ucontext_t*>(context));
    EndBySignal(signal);
}

void PrepareBare(const fs::path& folder)
{
    void* frame = nullptr;
    backtrace(&frame, 1); // loads the unwinder
    gLogDescriptor = open((folder / "bare.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    Install(ReportBare);
}

#ifdef BENCH_HAS_GLOG
void PrepareGlog(const fs::path&)
{
    google::InstallFailureSignalHandler();
}
#endif

#ifdef BENCH_HAS_ABSL
void PrepareAbseil(const fs::path&)
{
    absl::InitializeSymbolizer("/proc/self/exe");
    absl::InstallFailureSignalHandler({});
}
#endif

struct Subject
{
    const char* name;
    void (*prepare)(const fs::path&);
};

constexpr Subject kSubjects[] = {
    {"library", PrepareLibrary},
    {"limit", PrepareBare},
#ifdef BENCH_HAS_GLOG
    {"glog", PrepareGlog},
#endif
#ifdef BENCH_HAS_ABSL
    {"Abseil", PrepareAbseil},
#endif
};

std::uint64_t Now()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000u + static_cast<std::uint64_t>(now.tv_nsec);
}

[[gnu::noinline]] void Crash()
{
    volatile int* volatile nowhere = nullptr;
    *nowhere = 1;
}

[[noreturn]] void RunChild(const Subject& subject, const fs::path& folder, std::uint64_t& faultTime)
{
    const rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    const int output = open((folder / "output").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    subject.prepare(folder);
    faultTime = Now();
    Crash();
    std::abort(); // not reached
}

} // namespace

int main(int argumentCount, char** arguments)
{
    if (argumentCount < 2)
    {
        std::fputs("usage: bench_crash FOLDER [quick]\n", stderr);
        return EXIT_FAILURE;
    }
    const fs::path folder = arguments[1];
    fs::create_directories(folder);
    const unsigned repetitions = argumentCount > 2 ? 15 : 101;
    auto* const faultTime = static_cast<std::uint64_t*>(
        mmap(nullptr, sizeof(std::uint64_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    std::vector<double> durations[std::size(kSubjects)];
    for (unsigned repetition = 0; repetition < repetitions; ++repetition)
    {
        for (std::size_t i = 0; i < std::size(kSubjects); ++i)
        {
            const pid_t child = fork();
            if (child == 0)
            {
                RunChild(kSubjects[i], folder, *faultTime);
            }
            int status = 0;
            waitpid(child, &status, 0);
            durations[i].push_back(static_cast<double>(Now() - *faultTime));
            if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGSEGV)
            {
                std::fprintf(stderr, "%s: the child did not end by its fault\n", kSubjects[i].name);
                return EXIT_FAILURE;
            }
        }
    }
    for (std::size_t i = 0; i < std::size(kSubjects); ++i)
    {
        std::sort(durations[i].begin(), durations[i].end());
        PrintResult("crash report", kSubjects[i].name, "ns", durations[i][durations[i].size() / 2]);
        PrintResult("crash report", kSubjects[i].name, "best ns", durations[i].front());
    }
    fs::remove_all(folder);
    return EXIT_SUCCESS;
}
