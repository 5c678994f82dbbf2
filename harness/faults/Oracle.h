// Numbered lines that are noted when the log takes them, and the oracle that looks for them on disk.
#ifndef HARNESS_FAULTS_ORACLE_H
#define HARNESS_FAULTS_ORACLE_H

#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "support/TemporaryFolder.h"

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

// A call, with its text as its name, for tables.
#define CALL(...)                                                                                                           \
#__VA_ARGS__, [] {                                                                                                      \
        __VA_ARGS__;                                                                                                        \
    }

// ---- Writing ----

enum class Loss
{
    NONE,
    ALLOWED
};

// Numbers the lines of one thread. Known to all processes of a case, whatever becomes of this one.
struct Writer
{
    std::atomic<int> m_thread;
    std::atomic<int> m_taken; // lines, 0 to this number less 1
    std::atomic<bool> m_mayLose;
};

// Gives the calling thread a new writer; a thread without one gets it with its first line.
Writer& BeginWriter(Loss loss = Loss::NONE);

// Logs the next line. Lines end at every place in a block. Touches no heap.
//   returns whether the log has taken it; if not, the next one has the same number
bool Log(Writer& writer);
bool Log();
void LogLines(int count);

// A folder for one log, whose writers go with it.
class LogFolder : public TemporaryFolder
{
public:
    ~LogFolder();
    std::string Path() const { return *this / ""; }
};

// Switches the log on in a folder: app.log, or numbered files that are changed at a size.
void OpenLog(const std::string& folder, unsigned int maxFileSize = 0, unsigned int linesPerFlush = 10);

// ---- Reading ----

// What is found in the files of a folder.
class Verdict
{
public:
    Verdict() = default;
    explicit Verdict(const std::string& folder) { Read(folder); }

    // Reads what all files have got since the reading before.
    void Read(const std::string& folder);

    bool IsWhole() const { return m_torn + m_openEnds + m_empty + m_joined + m_doubled + m_wrongThread == 0; }
    int Lost() const;                       // of the lines that were taken and may not be lost
    int LostOf(const Writer& writer) const; // of all that it wrote

    int m_whole = 0;       // lines
    int m_doubled = 0;     // whole lines that are there once already
    int m_wrongThread = 0; // whole lines with another thread's id than their writer's
    int m_empty = 0;       // empty lines
    int m_torn = 0;        // neither whole nor empty
    int m_joined = 0;      // of those, lines in which another one starts
    int m_openEnds = 0;    // files that end without a line feed; what stands behind the last one counts nowhere else

private:
    void ReadLine(const std::string& line);

    std::map<int, std::vector<bool>> m_found; // of each writer, by number
    std::map<std::string, std::streamoff> m_readTo;
};

// Writes one row of the result, with its figures: kept when the log is whole, no line is lost, and `isElseKept`.
bool Report(const std::string& name, const Verdict& verdict, bool isElseKept, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// ---- Processes and threads ----

// Threads that make calls again and again, each its own, until this goes.
class RepeatedCalls
{
public:
    explicit RepeatedCalls(const std::vector<void (*)()>& calls);
    ~RepeatedCalls();
    RepeatedCalls(const RepeatedCalls&) = delete;
    RepeatedCalls& operator=(const RepeatedCalls&) = delete;

private:
    std::atomic<bool> m_stop{false};
    std::vector<std::thread> m_threads;
};

// Starts a child that runs `body` and ends, or is killed when it hangs.
pid_t StartChild(const std::function<void()>& body, unsigned int timeoutSeconds = 30);

// Returns whether it has ended as it should.
bool IsGoodEnd(pid_t child);

// Runs `run` for each row of a table. Returns whether all were good.
template <class Table, class Run>
bool RunAll(const Table& table, const Run& run)
{
    bool isGood = true;
    for (const auto& row : table)
    {
        isGood = run(row) && isGood;
    }
    return isGood;
}

// ---- The cases ----

// Each runs in a process of its own and returns whether all promises were kept. `scale` times as many rounds as in the short
// form.
bool FailCalls(int scale);
bool FailMemory(int scale);
bool FillDisk(int scale);
bool LimitFileSize(int scale);
bool ChangeFiles(int scale);
bool Fork(int scale);
bool ShareFile(int scale);
bool EndProcess(int scale);
bool Interrupt(int scale);
bool Kill(int scale);
bool EndThreads(int scale);
bool Race(int scale);
bool Rotate(int scale);
bool Unload(int scale);

#endif
