// A service that ends in order: SIGTERM and SIGINT are blocked in every thread and taken by sigwait, so that the end is code
// like any other. The workers finish what they do, the log is closed last, and no line of service.log is lost.
#include <ErrorHandlerDll/Boundary.h>
#include <ErrorHandlerDll/CrashHandler.h>
#include <ErrorHandlerDll/Log.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <thread>

namespace
{

std::atomic<bool> gIsEnding;

void Work(int worker)
{
    const CrashHandlerStack stack;
    int jobs = 0;
    while (!gIsEnding)
    {
        AtBoundary(ZR_HERE, [&] { ZR_LOG(ZR_LOG_DEBUG_LOW, 1, "worker %d, job %d", worker, ++jobs); });
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ZR_LOG(ZR_LOG_DEBUG_LOW, 1, "worker %d did %d jobs", worker, jobs);
}

} // namespace

int main()
{
    // Before the first thread starts: threads inherit the mask.
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);

    InitialiseLogging(true, ZR_LOG_DEBUG_LOW, ZR_LOG_ALL_CATEGORIES, "service.log");
    InstallCrashHandlers();
    InstallTerminateHandler();
    const CrashHandlerStack stack;

    std::thread first(Work, 1);
    std::thread second(Work, 2);
    std::puts("ready");
    std::fflush(stdout);

    int signal = 0;
    sigwait(&ends, &signal);
    ZR_LOG(ZR_LOG_DEBUG_LOW, 1, "ending on %s", signal == SIGTERM ? "SIGTERM" : "SIGINT");
    gIsEnding = true;
    first.join();
    second.join();
    ZR_LOG(ZR_LOG_DEBUG_LOW, 1, "ended");
    ShutdownLogging();
}
