// Processes that fork, share a file, and end or are killed while their threads log; threads that are interrupted by signals.
#include "harness/faults/Oracle.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <random>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace
{

void LogOnce()
{
    Log();
}

void LogNowAndThen()
{
    Log();
    usleep(20);
}

void LogUntilTheEnd()
{
    Log(BeginWriter(kMayLose)); // at the end lines are dropped
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
const struct
{
    const char* m_name;
    std::vector<void (*)()> m_calls;
} kNeighbours[] = {{"forked beside four threads that log", {LogNowAndThen, LogNowAndThen, LogNowAndThen, LogNowAndThen}},
                   {"forked beside localtime_r and malloc", {AskForLocalTime, AskForLocalTime, Allocate}},
                   {"forked beside all of that", {LogNowAndThen, LogNowAndThen, AskForLocalTime, Allocate}}};

Writer* gHandlerWriter = nullptr;

constexpr struct Load
{
    const char* m_name;
    unsigned int m_linesPerFlush;
    unsigned int m_maxFileSize;
} kLoads[] = {{"killed and restarted, appended, 10 a flush", 10, 0},
              {"killed and restarted, rotating, 10 a flush", 10, 200000},
              {"killed and restarted, appended, 101 a flush", 101, 0}};

// One log is written by process after process, each of which is killed at a random moment while its threads log. At most the
// lines since the last flush are lost; the next process joins no line to a half one, and changes nothing that was there.
//
// How many of the files end inside a line is a figure and no promise: the kernel stops the write of a killed process between
// two pages, so it depends on how much of its time a process spends in writes.
void KillAndRestart(const Load& load, int rounds)
{
    auto folder = std::make_unique<LogFolder>();
    std::mt19937 random(1);
    Verdict verdict;
    int halfEnds = 0;
    int lost = 0;
    int maxLost = 0;
    for (int round = 0; round < rounds; ++round)
    {
        const auto logForEver = [&]
        {
            OpenLog(folder->Path(), load.m_maxFileSize, load.m_linesPerFlush);
            const auto threads = CallForEver({LogOnce, LogOnce, LogOnce});
            pause();
        };
        const pid_t child = StartChild(logForEver);
        usleep(static_cast<unsigned int>(2000 + random() % 20000));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        verdict.Read(folder->Path()); // what this process has added
        halfEnds += verdict.m_openEnds;
        maxLost = std::max(maxLost, verdict.Lost() - lost);
        lost = verdict.Lost();
    }
    const Verdict all(folder->Path()); // what all of them have left of it
    const bool isSame = all.m_whole == verdict.m_whole && all.m_torn == verdict.m_torn;
    const int alien = all.m_wrong + all.m_empty + all.m_joined + std::max(all.m_torn + all.m_openEnds - halfEnds, 0);
    const int allowed = static_cast<int>(load.m_linesPerFlush) - 1;
    folder.reset(); // with its writers: what they have lost is judged here
    Report(load.m_name, Verdict(), isSame && alien == 0 && maxLost <= allowed && all.m_whole > 0,
           "%d kills, %d lines, at most %d lost, %d ends inside a line, %d lines torn elsewhere, joined or doubled%s",
           rounds, all.m_whole, maxLost, halfEnds, alien, isSame ? "" : ", earlier lines changed");
}

} // namespace

// Children write lines of their own and end without a word.
void Fork(int scale)
{
    for (const auto& neighbours : kNeighbours)
    {
        const LogFolder folder;
        int failed = 0;
        OpenLog(folder.Path());
        sleep(1); // the log knows the time of this second without asking
        std::vector<std::jthread> threads = CallForEver(neighbours.m_calls);
        for (int i = 0; i < 100 * scale; ++i)
        {
            failed += IsGoodEnd(StartChild([] { LogLines(3), ShutdownLogging(); })) ? 0 : 1;
        }
        threads.clear();
        ShutdownLogging();
        Report(neighbours.m_name, Verdict(folder.Path()), failed == 0, "%d forks, %d hung or crashed", 100 * scale, failed);
    }
}

void ShareFile(int)
{
    const LogFolder folder;
    const auto log = [&]
    {
        OpenLog(folder.Path());
        LogLines(10000);
        ShutdownLogging();
    };
    const pid_t children[] = {StartChild(log), StartChild(log), StartChild(log), StartChild(log)};
    const auto good = std::count_if(std::begin(children), std::end(children), IsGoodEnd);
    // A process that opens the file in the middle of another's write sees it end inside a line, and begins with a line feed.
    Verdict verdict(folder.Path());
    const int feeds = std::exchange(verdict.m_empty, 0);
    Report("four processes, one file", verdict, good == 4 && feeds < 4, "%d line feeds too many", feeds);
}

void EndProcess(int scale)
{
    int failed = 0;
    for (int round = 0; round < 20 * scale; ++round)
    {
        const LogFolder folder;
        const auto end = [&]
        {
            OpenLog(folder.Path());
            const auto threads = CallForEver({LogUntilTheEnd, LogUntilTheEnd, LogUntilTheEnd, LogUntilTheEnd});
            for (int i = 0; i < 5; ++i)
            {
                LogNowAndThen();
            }
            std::exit(0);
        };
        failed += IsGoodEnd(StartChild(end)) && Verdict(folder.Path()).IsKept() ? 0 : 1;
    }
    Report("exit while four threads log", Verdict(), failed == 0, "%d exits, %d crashed, hung, or left torn or lost lines",
           20 * scale, failed);
}

void Interrupt(int scale)
{
    constexpr long kIntervalNs = 50000;
    const LogFolder folder;
    gHandlerWriter = &BeginWriter(kMayLose);
    BeginWriter();
    std::signal(SIGUSR1, [](int) { Log(*gHandlerWriter); });
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
    Verdict verdict(folder.Path());
    const int taken = gHandlerWriter->m_taken;
    Report("a signal handler logs", verdict, taken > 0, "%d signals, %d of their lines dropped", taken,
           verdict.LostOf(*gHandlerWriter));
}

void Kill(int scale)
{
    for (const Load& load : kLoads)
    {
        KillAndRestart(load, 20 * scale);
    }
}
