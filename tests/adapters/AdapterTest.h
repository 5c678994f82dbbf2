// What the tests of the adapters share: a log, its lines read back, work for several threads. Each test is a program: the
// other libraries end processes and keep global state.
#ifndef TESTS_ADAPTERS_ADAPTERTEST_H
#define TESTS_ADAPTERS_ADAPTERTEST_H

#include <ErrorHandlerDll/ErrorHandlerDll.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

inline int gFailures = 0;

inline void Check(bool isRight, const std::string& what)
{
    if (!isRight)
    {
        std::fprintf(stderr, "FAILED: %s\n", what.c_str());
        ++gFailures;
    }
}

constexpr int kThreads = 4;
constexpr int kLinesOfThread = 25000;

inline void OpenLog(int level = 9)
{
    std::remove("adapter.log");
    InitialiseLogging(true, level, ZR_LOG_ALL_CATEGORIES, "adapter.log");
}

// "WARNING|source and message" for each line. Fails for lines that are not ours alone, as with a second time or thread.
inline std::vector<std::string> CloseLog()
{
    ShutdownLogging();
    std::vector<std::string> lines;
    std::ifstream file("adapter.log");
    for (std::string line; std::getline(file, line);)
    {
        const std::size_t thread = line.find("[ThreadID: ");
        const std::size_t text = line.find("] - ");
        Check(thread == 37 && text != std::string::npos, "no line of ours: " + line);
        if (text != std::string::npos)
        {
            const std::string level = line.substr(24, 10);
            lines.push_back(level.substr(0, level.find_last_not_of(' ') + 1) + "|" + line.substr(text + 4));
        }
    }
    return lines;
}

inline void CheckLines(const std::string& what, const std::vector<std::string>& expected)
{
    const std::vector<std::string> lines = CloseLog();
    Check(lines.size() == expected.size(), what + ": number of lines");
    for (std::size_t i = 0; i < lines.size() && i < expected.size(); ++i)
    {
        Check(lines[i] == expected[i], what + ": expected " + expected[i] + ", written " + lines[i]);
    }
}

// Every thread logs "thread 1 line 0" and so on; all must be there, in the order of their thread.
template <class LogLine>
void CheckThreads(const LogLine& logLine)
{
    OpenLog();
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread)
    {
        threads.emplace_back(
            [&logLine, thread]
            {
                for (int line = 0; line < kLinesOfThread; ++line)
                {
                    logLine(thread, line);
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    std::map<int, int> next;
    for (const std::string& line : CloseLog())
    {
        int thread = -1;
        int number = -1;
        const std::size_t at = line.find("thread ");
        Check(at != std::string::npos && std::sscanf(line.c_str() + at, "thread %d line %d", &thread, &number) == 2 &&
                  number == next[thread]++,
              "out of order: " + line);
    }
    for (int thread = 0; thread < kThreads; ++thread)
    {
        Check(next[thread] == kLinesOfThread, "lines of thread " + std::to_string(thread));
    }
}

inline int Result(const char* name)
{
    std::printf("%s: %d lines of %d threads, %s\n", name, kThreads * kLinesOfThread, kThreads,
                gFailures == 0 ? "all as they should be" : "FAILED");
    return gFailures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

#endif
