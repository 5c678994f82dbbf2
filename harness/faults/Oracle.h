// Numbered lines that are noted when the log takes them, and the oracle that looks for them on disk.
#ifndef HARNESS_FAULTS_ORACLE_H
#define HARNESS_FAULTS_ORACLE_H

#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "support/TemporaryFolder.h"

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

// A call, with its text as its name, for tables.
#define CALL(...)                                                                                                           \
#__VA_ARGS__, [] {                                                                                                      \
        __VA_ARGS__;                                                                                                        \
    }

// ---- Writing ----

// Numbers the lines of one thread. Known to all processes of a case, whatever becomes of this one.
struct Writer
{
    std::atomic<int> m_thread;
    std::atomic<int> m_taken; // lines, 0 to this number less 1
    std::atomic<bool> m_mayLose;
};

// Gives the calling thread a new writer; a thread without one gets it with its first line.
constexpr bool kMayLose = true;
Writer& BeginWriter(bool mayLose = false);

// Logs the next line. Lines end at every place in a block. Touches no heap.
//   returns whether the log has taken it; if not, the next one has the same number
bool Log(Writer& writer);
bool Log();
void LogLines(int count);

// ---- Reading ----

// What is found in the files of a folder.
class Verdict
{
public:
    // Reads what all files have got since the reading before.
    void Read(const std::string& folder);

    bool IsKept() const { return m_wrong + m_empty + m_torn + m_joined + m_openEnds + m_lost == 0; }

    int m_lost = 0;     // of the lines that were taken
    int m_dropped = 0;  // the same of writers that may lose lines
    int m_whole = 0;    // lines
    int m_wrong = 0;    // of those, lines that are there once already, or with another thread's id than their writer's
    int m_empty = 0;    // empty lines
    int m_torn = 0;     // neither whole nor empty
    int m_joined = 0;   // of those, lines with another line inside
    int m_openEnds = 0; // files that end without a line feed; what stands behind the last one counts nowhere else

private:
    void ReadLine(const std::string& line);

    std::map<int, std::vector<bool>> m_found; // of each writer, by number
    std::map<std::string, std::streamoff> m_readTo;
};

// Writes one row of the result, with its figures: kept when the verdict is, and `isElseKept`.
using Figures = std::vector<std::pair<const char*, long>>;
void Report(const std::string& name, const Verdict& verdict, bool isElseKept = true, const Figures& figures = {});

// A folder for one log, which is switched on in it: app.log, or numbered files that are changed at a size. The writers go
// with it.
class LogFolder : public TemporaryFolder
{
public:
    explicit LogFolder(unsigned int maxFileSize = 0, int linesPerFlush = 10);
    ~LogFolder();
    Verdict Close() const; // closes the log and reads it
};

// ---- Processes and threads ----

// Threads that make calls again and again, each its own, until they are destroyed.
using Calls = std::vector<void (*)()>;
std::vector<std::jthread> CallForEver(const Calls& calls);

// Makes a call so many times on a log of its own, while threads call `beside` for ever.
Verdict Repeat(int rounds, const std::function<void()>& call, const Calls& beside = {});

// Starts a child that runs `body` and ends, or is killed when it hangs.
pid_t StartChild(const std::function<void()>& body, int timeoutSeconds = 10);

// Waits for its end, and reports one that is not as it should be.
void Await(pid_t child, const std::string& name = "a child");

// ---- The cases ----

// Each runs in a process of its own. `scale` times as many rounds as in the short form.
using Case = void(int scale);
Case ChangeFiles, EndProcess, EndThreads, FailCalls, FailMemory, FillDisk, Fork, Interrupt, Kill, LimitFileSize, Race,
    Rotate, ShareFile, Unload;

#endif
