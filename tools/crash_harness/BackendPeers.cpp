// Other libraries in the same host, for comparison: build.sh FOLDER PEER. Where a library has a signal handler, that is
// used; otherwise one is written by hand as their manuals show. What a peer has to leave is its stack trace and the lines
// before it.
#include "Backend.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#ifdef PEER_GLOG

#include <glog/logging.h>

void Backend::Start(std::string_view)
{
    FLAGS_log_dir = ".";
    google::InitGoogleLogging("host");
}
void Backend::InstallHandlers()
{
    google::InstallFailureSignalHandler();
}
bool Backend::Log(int worker, std::uint64_t number)
{
    LOG(INFO) << "worker " << worker << " line " << number << '.';
    return true;
}

#else

namespace
{

// SA_ONSTACK, as for every handler that is to survive a stack overflow.
[[maybe_unused]] void Install(void (*handler)(int, siginfo_t*, void*))
{
    struct sigaction action = {};
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    for (const int signal : {SIGSEGV, SIGBUS, SIGILL, SIGFPE})
    {
        sigaction(signal, &action, nullptr);
    }
}

} // namespace

#ifdef PEER_SPDLOG

#include <execinfo.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

namespace
{

std::shared_ptr<spdlog::logger> gLogger;

void HandleFatalSignal(int signal, siginfo_t* info, void*)
{
    void* frames[100];
    const int count = backtrace(frames, 100);
    char** const names = backtrace_symbols(frames, count);
    gLogger->critical("stack trace: signal {} at {}", signal, info->si_addr);
    for (int i = 0; i < count; ++i)
    {
        gLogger->critical("frame {}", names[i]);
    }
    gLogger->flush();
    spdlog::shutdown();
    _exit(42);
}

} // namespace

void Backend::Start(std::string_view)
{
    gLogger = spdlog::basic_logger_mt("host", "host.log");
}
void Backend::InstallHandlers()
{
    Install(HandleFatalSignal);
}
bool Backend::Log(int worker, std::uint64_t number)
{
    gLogger->info("worker {} line {}.", worker, number);
    return true;
}

#else

// The others trace stacks only: the log is a stream.
namespace
{

std::FILE* gLog = nullptr;

} // namespace

void Backend::Start(std::string_view)
{
    gLog = std::fopen("host.log", "a");
}
bool Backend::Log(int worker, std::uint64_t number)
{
    std::fprintf(gLog, "worker %d line %llu.\n", worker, static_cast<unsigned long long>(number));
    return true;
}

#ifdef PEER_ABSEIL

#include <absl/debugging/failure_signal_handler.h>
#include <absl/debugging/symbolize.h>

void Backend::InstallHandlers()
{
    absl::InitializeSymbolizer("host");
    absl::FailureSignalHandlerOptions options;
    options.use_alternate_stack = false; // the host's own
    absl::InstallFailureSignalHandler(options);
    for (const int signal : {SIGSEGV, SIGBUS, SIGILL, SIGFPE})
    {
        struct sigaction action = {};
        sigaction(signal, nullptr, &action);
        action.sa_flags |= SA_ONSTACK;
        sigaction(signal, &action, nullptr);
    }
}

#elif defined(PEER_BACKWARD)

#include <backward.hpp>

namespace
{

void HandleFatalSignal(int signal, siginfo_t* info, void* context)
{
    std::fflush(gLog); // as a host would: nobody else knows of it
    backward::SignalHandling::handleSignal(signal, info, context);
    _exit(42);
}

} // namespace

void Backend::InstallHandlers()
{
    Install(HandleFatalSignal);
}

#elif defined(PEER_BOOST)

#include <boost/stacktrace.hpp>
#include <iostream>

namespace
{

void HandleFatalSignal(int, siginfo_t*, void*)
{
    std::cerr << "stack trace:\n" << boost::stacktrace::stacktrace() << std::flush;
    std::fflush(gLog);
    _exit(42);
}

} // namespace

void Backend::InstallHandlers()
{
    Install(HandleFatalSignal);
}

#endif
#endif
#endif

bool Backend::LogBytes(const unsigned char*, int)
{
    return false;
}
void Backend::RaiseAndHandle() {}
