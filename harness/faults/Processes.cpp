// Processes that fork, share a file, and end while their threads log; threads that are interrupted by signals.
#include "harness/faults/Oracle.h"

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <unistd.h>
#include <utility>

namespace
{

void LogNowAndThen()
{
    Log();
    usleep(20);
}

void AskForLocalTime()
{
    const std::time_t now = std::time(nullptr);
    std::tm local = {};
    localtime_r(&now, &local);
}

void Allocate()
{
    std::free(std::malloc(1000));
}

// What the other threads do. Where none logs, the parent's log rests, and each child asks for the time of another second
// than its parent's last line.
const struct Neighbours
{
    const char* m_name;
    std::vector<void (*)()> m_calls;
} kNeighbours[] = {{"forked beside four threads that log", {LogNowAndThen, LogNowAndThen, LogNowAndThen, LogNowAndThen}},
                   {"forked beside localtime_r and malloc", {AskForLocalTime, AskForLocalTime, Allocate}},
                   {"forked beside all of that", {LogNowAndThen, LogNowAndThen, AskForLocalTime, Allocate}}};

// Children write lines of their own and end without a word.
bool ForkBeside(const Neighbours& neighbours, int forks)
{
    const LogFolder folder;
    int failed = 0;
    OpenLog(folder.Path());
    sleep(1); // the log knows the time of this second without asking
    {
        const RepeatedCalls threads(neighbours.m_calls);
        const auto logToo = []
        {
            LogLines(3);
            ShutdownLogging();
        };
        for (int i = 0; i < forks; ++i)
        {
            failed += IsGoodEnd(StartChild(logToo, 10)) ? 0 : 1;
        }
    }
    ShutdownLogging();
    return Report(neighbours.m_name, Verdict(folder.Path()), failed == 0, "%d forks, %d hung or crashed", forks, failed);
}

Writer* gHandlerWriter = nullptr;

void LogInHandler(int)
{
    Log(*gHandlerWriter);
}

} // namespace

bool Fork(int scale)
{
    return RunAll(kNeighbours, [&](const Neighbours& neighbours) { return ForkBeside(neighbours, 100 * scale); });
}

bool ShareFile(int)
{
    constexpr int kProcesses = 4;
    const LogFolder folder;
    const auto log = [&]
    {
        OpenLog(folder.Path());
        LogLines(10000);
        ShutdownLogging();
    };
    pid_t children[kProcesses];
    for (pid_t& child : children)
    {
        child = StartChild(log);
    }
    const bool areGood = RunAll(children, IsGoodEnd);
    // A process that opens the file in the middle of another's write sees it end inside a line, and begins with a line feed.
    Verdict verdict(folder.Path());
    const int feeds = std::exchange(verdict.m_empty, 0);
    return Report("four processes, one file", verdict, areGood && feeds < kProcesses, "%d line feeds too many", feeds);
}

bool EndProcess(int scale)
{
    int failed = 0;
    bool isGood = true;
    for (int round = 0; round < 20 * scale; ++round)
    {
        const LogFolder folder;
        const auto end = [&]
        {
            OpenLog(folder.Path());
            const auto logOn = []
            {
                BeginWriter(Loss::ALLOWED); // at the end lines are dropped
                LogNowAndThen();
            };
            const RepeatedCalls threads({logOn, logOn, logOn, logOn});
            for (int i = 0; i < 5; ++i)
            {
                LogNowAndThen();
            }
            std::exit(0);
        };
        failed += IsGoodEnd(StartChild(end, 10)) ? 0 : 1;
        const Verdict verdict(folder.Path());
        isGood = (verdict.IsWhole() && verdict.Lost() == 0) || Report("an exit", verdict, false, "round %d", round);
    }
    return Report("exit while four threads log", Verdict(), isGood && failed == 0, "%d exits, %d crashed or hung",
                  20 * scale, failed);
}

bool Interrupt(int scale)
{
    constexpr long kIntervalNs = 50000;
    const LogFolder folder;
    gHandlerWriter = &BeginWriter(Loss::ALLOWED);
    BeginWriter();
    std::signal(SIGUSR1, LogInHandler);
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGUSR1;
    timer_t timer = {};
    timer_create(CLOCK_MONOTONIC, &event, &timer);
    const itimerspec interval = {{0, kIntervalNs}, {0, kIntervalNs}};
    OpenLog(folder.Path());
    timer_settime(timer, 0, &interval, nullptr);
    LogLines(100000 * scale);
    timer_delete(timer);
    ShutdownLogging();
    const Verdict verdict(folder.Path());
    const int taken = gHandlerWriter->m_taken;
    return Report("a signal handler logs", verdict, taken > 0, "%d signals, %d of their lines dropped", taken,
                  verdict.LostOf(*gHandlerWriter));
}
