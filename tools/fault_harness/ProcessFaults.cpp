// Processes that fork, share a file, end while their threads log, cancel them, interrupt them by signals, close
// the standard descriptors, and execute others. faults_processes_SUBJECT [N [CASE]]: N times as many rounds as in the short
// form, of one case or of all.
#include "Oracle.h"
#include "Subject.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <pthread.h>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace
{

int gScale = 1;
std::atomic<bool> gStop{false};

void LogUntilStopped(int writer)
{
    for (int i = 0; !gStop; ++i)
    {
        Subject::Log(LineText(writer, i).c_str());
    }
}

void AskForLocalTime()
{
    while (!gStop)
    {
        const std::time_t now = std::time(nullptr);
        std::tm local = {};
        localtime_r(&now, &local);
    }
}

void Allocate()
{
    while (!gStop)
    {
        std::free(std::malloc(1000));
    }
}

// Children of a process whose other threads log, or do what the log needs, write lines of their own and end without a word.
bool Forked(const char* name, int loggingThreads, const std::vector<void (*)()>& others)
{
    constexpr int kChildLines = 3;
    const int forks = 200 * gScale;
    const ScratchFolder folder;
    int hung = 0;
    int wrongThread = 0;
    int lost = 0;
    std::vector<pid_t> children;
    Subject::Open(folder.Path(), 0);
    std::vector<std::thread> threads;
    gStop = false;
    for (void (*const other)() : others)
    {
        threads.emplace_back(other);
    }
    for (int i = 0; i < loggingThreads; ++i)
    {
        threads.emplace_back(
            [i]
            {
                for (int number = 0; !gStop; ++number)
                {
                    Subject::Log(LineText(i, number).c_str());
                    usleep(20);
                }
            });
    }
    for (int i = 0; i < forks; ++i)
    {
        const pid_t child = fork();
        if (child == 0)
        {
            alarm(2);
            for (int number = 0; number < kChildLines; ++number)
            {
                Subject::Log(LineText(1000 + i, number).c_str());
            }
            Subject::Flush();
            _exit(0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        hung += status != 0 ? 1 : 0;
        children.push_back(child);
    }
    gStop = true;
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    Subject::Close();
    Verdict verdict = Judge(folder.Path());
    for (int i = 0; i < forks; ++i)
    {
        lost += verdict.Lost(1000 + i, kChildLines);
        const std::string id = std::to_string(children[static_cast<std::size_t>(i)]);
        for (const std::string& prefix : verdict.m_prefixes[1000 + i])
        {
            wrongThread += prefix.find(id) == std::string::npos ? 1 : 0;
        }
    }
    return Report(name, hung == 0 && verdict.IsWhole() && wrongThread == 0 && lost == 0,
                  Figures("%d forks: %d hung or crashed, %d torn, %d doubled, %d wrong thread ids, %d lost", forks, hung,
                          verdict.m_torn, verdict.m_doubled, wrongThread, lost));
}

bool ForkedBesideLog()
{
    return Forked("forked while four threads log", 4, {});
}

// The parent's log rests: each child asks for the time of another second than its parent's last line.
bool ForkedBesideLibc()
{
    return Forked("forked while others ask for time and memory", 0, {AskForLocalTime, AskForLocalTime, Allocate}) &&
           Forked("forked while others do all of that", 2, {AskForLocalTime, Allocate});
}

bool Shared()
{
    constexpr int kProcesses = 4;
    constexpr int kLines = 10000;
    const ScratchFolder folder;
    std::vector<pid_t> children;
    for (int i = 0; i < kProcesses; ++i)
    {
        children.push_back(fork());
        if (children.back() == 0)
        {
            Subject::Open(folder.Path(), 0);
            for (int number = 0; number < kLines; ++number)
            {
                Subject::Log(LineText(i, number).c_str());
            }
            Subject::Close();
            _exit(0);
        }
    }
    for (const pid_t child : children)
    {
        waitpid(child, nullptr, 0);
    }
    const Verdict verdict = Judge(folder.Path());
    int lost = 0;
    for (int i = 0; i < kProcesses; ++i)
    {
        lost += verdict.Lost(i, kLines);
    }
    // A process that opens the file in the middle of another's write sees it end inside a line, and begins with a line feed.
    return Report("four processes, one file", verdict.HasWholeLines() && verdict.m_empty < kProcesses && lost == 0,
                  Figures("%d lines: %d torn, %d lost, %d doubled, %d empty", kProcesses * kLines, verdict.m_torn, lost,
                          verdict.m_doubled, verdict.m_empty));
}

// Registered before any library is initialised, and so run after all of them are finished.
bool gLogsLate = false;

void LogLate()
{
    if (gLogsLate)
    {
        Subject::Log(LineText(9, 0).c_str());
    }
}

void RegisterLate(int, char**, char**)
{
    std::atexit(LogLate);
}
[[gnu::section(".preinit_array"), gnu::used]] void (*const gRegisterLate)(int, char**, char**) = RegisterLate;

bool Ended()
{
    constexpr int kThreads = 4;
    const int rounds = 100 * gScale;
    int crashed = 0;
    int torn = 0;
    int lost = 0;
    for (int round = 0; round < rounds; ++round)
    {
        const ScratchFolder folder;
        const auto body = [&]
        {
            gLogsLate = true;
            Subject::Open(folder.Path(), 0);
            for (int i = 0; i < kThreads; ++i)
            {
                std::thread(LogUntilStopped, i).detach();
            }
            for (int i = 0; i < 5; ++i)
            {
                Subject::Log(LineText(8, i).c_str());
                usleep(200);
            }
            std::exit(0);
        };
        crashed += RunChild(body, 10) != 0 ? 1 : 0;
        const Verdict verdict = Judge(folder.Path());
        torn += verdict.m_torn + verdict.m_openEnds;
        lost += verdict.Lost(8, 5);
    }
    return Report("exit while four threads log, late lines", crashed == 0 && torn == 0 && lost == 0,
                  Figures("%d exits: %d crashed or hung, %d torn, %d lines from before lost", rounds, crashed, torn, lost));
}

void* LogForEver(void* writer)
{
    LogUntilStopped(*static_cast<int*>(writer));
    return nullptr;
}

// Threads are cancelled, or leave by pthread_exit, between and inside their calls.
bool Cancelled()
{
    const int rounds = 200 * gScale;
    const ScratchFolder folder;
    auto* verdictOfChild = static_cast<int*>(SharedMemory(sizeof(int)));
    const auto body = [&]
    {
        Subject::Open(folder.Path(), 0);
        for (int round = 0; round < rounds; ++round)
        {
            int writers[2] = {2 * round + 10, 2 * round + 11};
            pthread_t threads[2];
            pthread_create(&threads[0], nullptr, LogForEver, &writers[0]);
            pthread_create(&threads[1], nullptr, LogForEver, &writers[1]);
            usleep(static_cast<unsigned int>(round % 7) * 100);
            for (const pthread_t thread : threads)
            {
                pthread_cancel(thread);
            }
            // Logging is no cancellation point of the library: something has to be, for the thread to end.
            gStop = true;
            for (const pthread_t thread : threads)
            {
                pthread_join(thread, nullptr);
            }
            gStop = false;
            *verdictOfChild += Subject::Log(LineText(0, round).c_str()) ? 1 : 0;
        }
        Subject::Close();
    };
    const int status = RunChild(body, 20);
    const Verdict verdict = Judge(folder.Path());
    const int lost = verdict.Lost(0, rounds);
    return Report("threads cancelled while logging", status == 0 && verdict.IsWhole() && lost == 0,
                  Figures("%d threads: status %x, %d of %d later lines lost, %d torn, %d doubled", 2 * rounds,
                          static_cast<unsigned int>(status), lost, rounds, verdict.m_torn, verdict.m_doubled));
}

int gSignals = 0;

void LogInHandler(int)
{
    const int savedErrno = errno;
    Subject::Log(LineText(1, gSignals++).c_str());
    errno = savedErrno;
}

bool Interrupted()
{
    constexpr int kLines = 200000;
    constexpr long kIntervalNs = 50000;
    const ScratchFolder folder;
    auto* signals = static_cast<int*>(SharedMemory(sizeof(int)));
    const auto body = [&]
    {
        struct sigaction action = {};
        action.sa_handler = LogInHandler;
        sigaction(SIGUSR1, &action, nullptr);
        sigevent event = {};
        event.sigev_notify = SIGEV_SIGNAL;
        event.sigev_signo = SIGUSR1;
        timer_t timer = {};
        timer_create(CLOCK_MONOTONIC, &event, &timer);
        const itimerspec interval = {{0, kIntervalNs}, {0, kIntervalNs}};
        Subject::Open(folder.Path(), 0);
        std::vector<std::string> texts; // made before: the handler may find this thread in malloc otherwise
        for (int i = 0; i < kLines; ++i)
        {
            texts.push_back(LineText(0, i));
        }
        gSignals = 0;
        timer_settime(timer, 0, &interval, nullptr);
        for (const std::string& text : texts)
        {
            Subject::Log(text.c_str());
        }
        timer_delete(timer);
        *signals = gSignals;
        Subject::Close();
    };
    const int status = RunChild(body, 20);
    const Verdict verdict = Judge(folder.Path());
    return Report(
        "a signal handler logs", status == 0 && verdict.IsWhole() && verdict.Lost(0, kLines) == 0 && *signals > 0,
        Figures("status %x, %d signals: %d of their lines dropped, %d of the thread's %d lost, %d torn, %d doubled",
                static_cast<unsigned int>(status), *signals, verdict.Lost(1, *signals), verdict.Lost(0, kLines), kLines,
                verdict.m_torn, verdict.m_doubled));
}

// The host closes its standard descriptors and prints all the same; then it opens files of its own.
bool StandardDescriptorsClosed()
{
    const ScratchFolder folder;
    const ScratchFolder others;
    const auto body = [&]
    {
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
        Subject::Open(folder.Path(), 0);
        Subject::Log(LineText(0, 0).c_str());
        std::printf("foreign\n");
        std::fflush(stdout);
        std::fprintf(stderr, "foreign\n");
        const int descriptor = open((others.Path() + "/host").c_str(), O_CREAT | O_WRONLY, 0600);
        Subject::Log(LineText(0, 1).c_str());
        std::printf("foreign\n");
        std::fflush(stdout);
        Subject::Close();
        if (write(descriptor, "host\n", 5) == 5)
        {
            close(descriptor);
        }
    };
    const int status = RunChild(body);
    const Verdict verdict = Judge(folder.Path());
    std::ostringstream host;
    host << std::ifstream(others.Path() + "/host").rdbuf();
    const bool mixed = host.str().find('<') != std::string::npos;
    return Report("standard descriptors closed", status == 0 && verdict.IsWhole() && verdict.Lost(0, 2) == 0 && !mixed,
                  Figures("%d foreign lines in the log, %d lines lost%s", verdict.m_torn, verdict.Lost(0, 2),
                          mixed ? ", log lines in a file of the host" : ""));
}

bool Inherited()
{
    const ScratchFolder folder;
    const ScratchFolder others;
    const std::string list = others.Path() + "/list";
    const auto body = [&]
    {
        Subject::Open(folder.Path(), 0);
        Subject::Log(LineText(0, 0).c_str());
        const std::string command = "ls -l /proc/self/fd >" + list;
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    };
    const int status = RunChild(body);
    std::ostringstream names;
    names << std::ifstream(list).rdbuf();
    const bool found = names.str().find(folder.Path()) != std::string::npos;
    return Report("executed programs do not inherit the log", status == 0 && !names.str().empty() && !found,
                  found ? "the program has the log open" : "not inherited");
}

struct Case
{
    const char* m_name;
    bool (*m_run)();
};

constexpr Case kCases[] = {{"shared", Shared},
                           {"ended", Ended},
                           {"cancelled", Cancelled},
                           {"interrupted", Interrupted},
                           {"descriptors", StandardDescriptorsClosed},
                           {"inherited", Inherited},
                           {"forked", ForkedBesideLog},
                           {"forked-libc", ForkedBesideLibc}};

} // namespace

int main(int count, char** arguments)
{
    gScale = count > 1 ? std::atoi(arguments[1]) : 1;
    bool good = true;
    for (const Case& row : kCases)
    {
        if (count < 3 || std::strcmp(arguments[2], row.m_name) == 0)
        {
            good = row.m_run() && good;
        }
    }
    return good ? 0 : 1;
}
