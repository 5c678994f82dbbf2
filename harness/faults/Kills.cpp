// One log is written by process after process, each of which is killed at a random moment while its threads log. At most the
// lines since the last flush are lost; the next process joins no line to a half one, and changes nothing that was there.
//
// How many of the files end inside a line is a figure and no promise: the kernel stops the write of a killed process between
// two pages, so it depends on how much of its time a process spends in writes.
#include "harness/faults/Oracle.h"

#include <algorithm>
#include <csignal>
#include <random>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr struct Load
{
    const char* m_name;
    unsigned int m_linesPerFlush;
    unsigned int m_maxFileSize;
} kLoads[] = {{"killed and restarted, appended, 10 a flush", 10, 0},
              {"killed and restarted, rotating, 10 a flush", 10, 200000},
              {"killed and restarted, appended, 101 a flush", 101, 0}};

void LogForEver(Writer* writer)
{
    writer->m_thread = gettid();
    for (;;)
    {
        Log(*writer);
    }
}

bool KillAndRestart(const Load& load, int rounds)
{
    const LogFolder folder;
    std::mt19937 random(1);
    Verdict verdict;
    int halfEnds = 0;
    int maxLost = 0;
    for (int round = 0; round < rounds; ++round)
    {
        Writer* const writers[] = {&BeginWriter(Loss::ALLOWED), &BeginWriter(Loss::ALLOWED), &BeginWriter(Loss::ALLOWED)};
        const auto logForEver = [&]
        {
            OpenLog(folder.Path(), load.m_maxFileSize, load.m_linesPerFlush);
            for (Writer* const writer : writers)
            {
                std::thread(LogForEver, writer).detach();
            }
            pause();
        };
        const pid_t child = StartChild(logForEver);
        while (writers[0]->m_taken == 0 && waitpid(child, nullptr, WNOHANG) == 0)
        {
            usleep(100);
        }
        usleep(static_cast<unsigned int>(500 + random() % 10000));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        verdict.Read(folder.Path()); // what this process has added
        halfEnds += verdict.m_openEnds;
        int lost = 0;
        for (const Writer* const writer : writers)
        {
            lost += verdict.LostOf(*writer);
        }
        maxLost = std::max(maxLost, lost);
    }
    Verdict all(folder.Path()); // what all of them have left of it
    const bool isSame = all.m_whole == verdict.m_whole && all.m_torn == verdict.m_torn;
    const bool isTornByKills = all.m_torn + all.m_openEnds <= halfEnds;
    all.m_torn = all.m_openEnds = 0;
    return Report(load.m_name, all, isSame && isTornByKills && maxLost < static_cast<int>(load.m_linesPerFlush),
                  "%d kills, at most %d lines lost, %d ends inside a line%s%s", rounds, maxLost, halfEnds,
                  isTornByKills ? "" : ", lines torn elsewhere", isSame ? "" : ", earlier lines changed");
}

} // namespace

bool Kill(int scale)
{
    return RunAll(kLoads, [&](const Load& load) { return KillAndRestart(load, 20 * scale); });
}
