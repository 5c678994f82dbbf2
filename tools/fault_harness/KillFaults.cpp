// Processes that are killed at a random moment while their threads log: faults_kills_SUBJECT [N [CASE]], N times as many
// rounds as in the short form, of one case or of all.
//
// How many logs end on a whole line is a figure and no promise: the kernel stops the write of a killed process between two
// pages, so it depends on how much of its time a process spends in writes.
#include "Oracle.h"
#include "Subject.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace
{

constexpr int kMaxWriters = 4;
constexpr std::size_t kMaxFileSize = 200000;
constexpr int kDefaultLinesPerFlush = 101;

struct Case
{
    const char* m_name;
    int m_linesPerFlush;
    std::size_t m_maxFileSize;
    int m_writers;
    int m_linesPerSecond; // aimed at by work between the lines; 0: nothing but logging
};

constexpr Case kCases[] = {{"full-speed-10", 10, 0, 2, 0},
                           {"full-speed-10-rotating", 10, kMaxFileSize, 2, 0},
                           {"full-speed", kDefaultLinesPerFlush, 0, 2, 0},
                           {"working", kDefaultLinesPerFlush, 0, kMaxWriters, 100000}};

// Written by the process that is killed.
struct Progress
{
    std::atomic<bool> m_started;
    std::atomic<int> m_taken[kMaxWriters];

    int Lines() const
    {
        int lines = 0;
        for (const std::atomic<int>& taken : m_taken)
        {
            lines += taken;
        }
        return lines;
    }
};

// What a host does between its lines, so that the processor is as busy as at full speed.
std::uint32_t Checksum(std::size_t size)
{
    static volatile unsigned char bytes[4096];
    std::uint32_t sum = 1;
    for (std::size_t i = 0; i < size; ++i)
    {
        sum = sum * 31 + bytes[i % sizeof bytes];
    }
    return sum;
}

void LogAndWork(int writer, std::size_t work, std::atomic<int>* taken)
{
    static std::atomic<std::uint32_t> sink;
    for (int i = 0;; ++i)
    {
        if (Subject::Log(LineText(writer, i).c_str()))
        {
            taken->store(i + 1);
        }
        sink.store(Checksum(work), std::memory_order_relaxed);
    }
}

[[noreturn]] void LogUntilKilled(const Case& load, std::size_t work, const ScratchFolder& folder, Progress& progress)
{
    Subject::gLinesPerFlush = load.m_linesPerFlush;
    Subject::Open(folder.Path(), load.m_maxFileSize);
    for (int i = 1; i < load.m_writers; ++i)
    {
        std::thread(LogAndWork, i, work, &progress.m_taken[i]).detach();
    }
    progress.m_started = true;
    LogAndWork(0, work, &progress.m_taken[0]);
    std::abort();
}

std::string Read(const std::string& path)
{
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

// Returns for how many seconds it logged.
double RunAndKill(const Case& load, std::size_t work, const ScratchFolder& folder, Progress& progress,
                  unsigned int microseconds)
{
    progress.m_started = false;
    std::fill(std::begin(progress.m_taken), std::end(progress.m_taken), 0);
    const pid_t child = fork();
    if (child == 0)
    {
        LogUntilKilled(load, work, folder, progress);
    }
    while (!progress.m_started && waitpid(child, nullptr, WNOHANG) == 0)
    {
        usleep(100);
    }
    const auto start = std::chrono::steady_clock::now();
    usleep(microseconds);
    kill(child, SIGKILL);
    const std::chrono::duration<double> duration = std::chrono::steady_clock::now() - start;
    waitpid(child, nullptr, 0);
    return duration.count();
}

// How many bytes to sum up after each line, corrected a little after each round.
double CorrectWork(const Case& load, double work, double linesPerSecond)
{
    return load.m_linesPerSecond == 0 ? 0 : work * std::clamp(linesPerSecond / load.m_linesPerSecond, 0.8, 1.25);
}

bool Killed(const Case& load, int rounds)
{
    static Progress& progress = *static_cast<Progress*>(SharedMemory(sizeof(Progress)));
    double work = load.m_linesPerSecond == 0 ? 0 : 16384;
    std::mt19937 random(1);
    int wholeEnds = 0;
    int torn = 0;
    int doubled = 0;
    int mostLost = 0;
    double lines = 0;
    double seconds = 0;
    for (int round = 0; round < rounds; ++round)
    {
        const ScratchFolder folder;
        const auto microseconds = static_cast<unsigned int>(2000 + random() % 25000);
        const double duration = RunAndKill(load, static_cast<std::size_t>(work), folder, progress, microseconds);
        work = CorrectWork(load, work, progress.Lines() / duration);
        seconds += duration;
        const Verdict verdict = Judge(folder.Path());
        wholeEnds += verdict.m_openEnds == 0 ? 1 : 0;
        torn += verdict.m_torn;
        doubled += verdict.m_doubled;
        int lost = 0;
        for (int i = 0; i < load.m_writers; ++i)
        {
            lost += verdict.Lost(i, progress.m_taken[i]);
        }
        mostLost = std::max(mostLost, lost);
        lines += progress.Lines();
    }
    return Report(std::string("killed, ") + load.m_name, torn == 0 && doubled == 0 && mostLost < load.m_linesPerFlush,
                  Figures("%.0f lines/s, whole ending in %d of %d, at most %d lines lost, %d torn inside, %d doubled",
                          lines / seconds, wholeEnds, rounds, mostLost, torn, doubled));
}

// One log is killed again and again: whatever its end looked like, the next process ruins no line of the one before.
bool KilledAndRestarted(const Case& load, int rounds)
{
    static Progress& progress = *static_cast<Progress*>(SharedMemory(sizeof(Progress)));
    const ScratchFolder folder;
    std::mt19937 random(1);
    std::map<std::string, std::string> before; // contents of the files
    int torn = 0;
    int changed = 0;
    for (int round = 0; round < rounds; ++round)
    {
        RunAndKill(load, 0, folder, progress, static_cast<unsigned int>(500 + random() % 3000));
        for (auto& [path, contents] : before)
        {
            const std::string now = Read(path);
            changed += now.compare(0, contents.size(), contents) == 0 ? 0 : 1;
        }
        for (const auto& file : std::filesystem::directory_iterator(folder.Path()))
        {
            std::string& contents = before[file.path()] = Read(file.path());
            torn += !contents.empty() && contents.back() != '\n' ? 1 : 0;
        }
    }
    const int joined = Judge(folder.Path()).m_joined;
    return Report(
        std::string("killed and restarted, ") + load.m_name, joined == 0 && changed == 0,
        Figures("%d restarts, %d files found with half a line: %d lines joined, %d files with other contents before", rounds,
                torn, joined, changed));
}

} // namespace

int main(int count, char** arguments)
{
    constexpr int kRounds = 40;
    const int rounds = kRounds * (count > 1 ? std::atoi(arguments[1]) : 1);
    bool good = true;
    for (const Case& load : kCases)
    {
        if ((load.m_maxFileSize == 0 || Subject::kRotates) && (count < 3 || std::strcmp(arguments[2], load.m_name) == 0))
        {
            good = Killed(load, rounds) && good;
            good = (load.m_linesPerSecond > 0 || KilledAndRestarted(load, rounds)) && good;
        }
    }
    return good ? 0 : 1;
}
