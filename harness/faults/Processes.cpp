// Processes that fork, share a file, and end or are killed while their threads log; threads that are interrupted by signals.
// And a long life, in which the process does not grow: many lines to numbered files that are deleted on the way, and the
// library loaded and unloaded again and again.
#include "harness/faults/Oracle.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <valarray>

namespace
{

void LogNowAndThen()
{
    Log();
    usleep(20);
}

// In threads that the end of the process may take lines from.
void LogAtTheEnd()
{
    thread_local Writer& writer = BeginWriter(kMayLose);
    Log(writer);
}

void Allocate()
{
    void* volatile block = std::malloc(1000); // volatile: not taken out by the compiler
    std::free(block);
}

pid_t StartToLog(int lines)
{
    return StartChild([=] { LogLines(lines), ShutdownLogging(); });
}

void ForkOnce()
{
    Await(StartToLog(3));
}

void ExitBesideThreads()
{
    const auto threads = CallForEver({LogAtTheEnd, LogAtTheEnd, LogAtTheEnd, LogAtTheEnd});
    usleep(500);
    LogLines(5);
    std::exit(0);
}

// One log is written by process after process, each of which is killed at some moment while its threads log. At most the
// lines since the last flush are lost; the next process joins no line to a half one, and changes nothing that was there.
//
// How many of the files end inside a line is a figure and no promise: the kernel stops the write of a killed process between
// two pages, so it depends on how much of its time a process spends in writes.
void KillAndRestart(const char* name, unsigned int maxFileSize, int linesPerFlush, int kills)
{
    const LogFolder folder(maxFileSize, linesPerFlush);
    Verdict verdict;
    int halfEnds = 0;
    int lost = 0;
    int maxLost = 0;
    for (int i = 0; i < kills; ++i)
    {
        const pid_t child = StartChild([] { CallForEver({LogAtTheEnd, LogAtTheEnd, LogAtTheEnd})[0].join(); });
        usleep(static_cast<unsigned int>(2000 + i * 7919 % 20000));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        verdict.Read(folder / ""); // what this process has added
        halfEnds += verdict.m_openEnds;
        maxLost = std::max(maxLost, verdict.m_dropped - lost);
        lost = verdict.m_dropped;
    }
    Verdict all = folder.Close(); // what all of them have left of it
    const bool isSame = all.m_whole == verdict.m_whole && all.m_torn == verdict.m_torn;
    all.m_torn = std::max(all.m_torn + std::exchange(all.m_openEnds, 0) - halfEnds, 0);
    Report(name, all, isSame && maxLost < linesPerFlush && all.m_whole > 0,
           {{"lost at most", maxLost}, {"ends inside a line", halfEnds}, {"earlier lines changed", isSame ? 0 : 1}});
}

// Bytes of heap, pages of memory, descriptors.
std::valarray<long> Measure()
{
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const auto descriptors = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    return {static_cast<long>(mallinfo2().uordblks), pages, descriptors};
}

// `round` returns whether its log is whole.
void StayFlat(const char* name, int rounds, const std::function<bool()>& round)
{
    int broken = 0;
    std::valarray<long> more;
    for (int i = -5; i < rounds; ++i) // what is allocated once and for all comes first
    {
        more = i <= 0 ? Measure() : more;
        broken += round() ? 0 : 1;
    }
    more = Measure() - more;
    const bool isFlat = more[0] <= 16 * rounds && more[1] <= 64 && more[2] == 0; // no block a round
    Report(name, Verdict(), broken == 0 && isFlat,
           {{"broken", broken}, {"bytes of heap", more[0]}, {"pages", more[1]}, {"descriptors", more[2]}});
}

} // namespace

// Children write lines of their own and end without a word. Where no thread logs, the parent's log rests, and each child
// asks for the time of another second than its parent's last line.
void Fork(int scale)
{
    const Calls log = {LogNowAndThen, LogNowAndThen, LogNowAndThen, LogNowAndThen};
    Report("forked beside four threads that log", Repeat(100 * scale, ForkOnce, log));
    Report("forked beside tzset and malloc", Repeat(100 * scale, ForkOnce, {tzset, tzset, Allocate}));
    Report("forked beside all of that", Repeat(100 * scale, ForkOnce, {LogNowAndThen, LogNowAndThen, tzset, Allocate}));
}

void EndProcess(int scale)
{
    Report("exit while four threads log", Repeat(20 * scale, [] { Await(StartChild(ExitBesideThreads)); }));
}

void Kill(int scale)
{
    KillAndRestart("killed and restarted, appended, 10 a flush", 0, 10, 20 * scale);
    KillAndRestart("killed and restarted, rotating, 10 a flush", 200000, 10, 20 * scale);
    KillAndRestart("killed and restarted, appended, 101 a flush", 0, 101, 20 * scale);
}

void ShareFile(int)
{
    const LogFolder folder; // each process opens the log with its first line
    for (const pid_t child : {StartToLog(10000), StartToLog(10000), StartToLog(10000), StartToLog(10000)})
    {
        Await(child);
    }
    // A process that opens the file in the middle of another's write sees it end inside a line, and begins with a line feed.
    Verdict verdict = folder.Close();
    const int feeds = std::exchange(verdict.m_empty, 0);
    Report("four processes, one file", verdict, feeds < 4, {{"line feeds too many", feeds}});
}

void Interrupt(int scale)
{
    const LogFolder folder;
    static Writer& writer = BeginWriter(kMayLose);
    BeginWriter();
    std::signal(SIGUSR1, [](int) { Log(writer); });
    sigevent event = {};
    event.sigev_signo = SIGUSR1;
    timer_t timer = {};
    timer_create(CLOCK_MONOTONIC, &event, &timer);
    const itimerspec interval = {{0, 50000}, {0, 50000}};
    timer_settime(timer, 0, &interval, nullptr);
    LogLines(100000 * scale);
    timer_delete(timer);
    Report("a signal handler logs", folder.Close(), writer.m_taken > 0, {{"signals", writer.m_taken}});
}

void Rotate(int scale)
{
    const auto round = []
    {
        const LogFolder folder(200000, 101);
        LogLines(10000);
        return folder.Close().IsKept();
    };
    StayFlat("10,000 lines to numbered files, deleted", 40 * scale, round);
}

// Another copy of the library than the one that this program is linked with.
void Unload(int scale)
{
    const TemporaryFolder other;
    const std::string library = other / "copy.so";
    Dl_info info = {};
    dladdr(reinterpret_cast<void*>(&InitialiseLogging), &info);
    std::filesystem::copy_file(info.dli_fname, library);
    const auto round = [&]
    {
        const TemporaryFolder folder;
        void* const handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
        const auto initialise = reinterpret_cast<decltype(&InitialiseLogging)>(dlsym(handle, "InitialiseLogging"));
        const auto log = reinterpret_cast<decltype(&LogMessage)>(dlsym(handle, "LogMessage"));
        const auto add = reinterpret_cast<decltype(&AddCustomErrorMessage)>(dlsym(handle, "AddCustomErrorMessage"));
        initialise(true, ZR_LOG_WARNING, 1, (folder / "app.log").c_str());
        log(ZR_LOG_WARNING, 1, "", "line");
        add(ZR_CUSTOM_ERROR_FIRST, "text");
        dlclose(handle);
        return ReadFile(folder / "app.log").ends_with("line\n") &&
               dlopen(library.c_str(), RTLD_NOW | RTLD_NOLOAD) == nullptr;
    };
    StayFlat("dlopen, log, dlclose", 100 * scale, round);
}
