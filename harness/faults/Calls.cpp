// Every system call of a log's life fails in turn, once and three times in a row, with every error that disks and tables of
// descriptors give. A line may be lost only when it was refused, or, after more than one failure, when its file was left
// while nothing could be written. Nothing is ever torn or doubled.
#include "harness/faults/Oracle.h"
#include "support/Faults.h"

#include <cerrno>
#include <cstring>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

constexpr struct Call
{
    long m_number;
    const char* m_name;
    unsigned int m_maxFileSize;
} kCalls[] = {{SYS_openat, "openat", 0},
              {SYS_writev, "writev", 0},
              {SYS_close, "close", 0},
              {SYS_fcntl, "fcntl", 0},
              {SYS_fstat, "fstat", 0},
              {SYS_pread64, "pread64", 0},
              {SYS_openat, "openat", 1500},
              {SYS_writev, "writev", 1500},
              {SYS_close, "close", 1500},
              {SYS_fcntl, "fcntl", 1500},
              {SYS_fstat, "fstat", 1500},
              {SYS_pread64, "pread64", 1500},
              {SYS_getdents64, "getdents64", 1500}};
constexpr int kErrors[] = {ENOSPC, EIO, EMFILE, EINTR, EDQUOT, EACCES, EAGAIN, Faults::kShortWrite, Faults::kHalfThenFull};

// A log's life: opened, filled over several flushes, closed, opened again, closed. Without standard input, so that the log's
// descriptor has to be moved.
//   returns how many calls of the planned kind there were, or -1 when lines were refused that must not be
int Live(const std::string& folder, unsigned int maxFileSize, const Faults::Plan& plan)
{
    constexpr int kLines = 22;
    close(STDIN_FILENO);
    OpenLog(folder, maxFileSize);
    Faults::gPlan = plan;
    const bool isInterrupted = plan.m_error == EINTR && plan.m_number != SYS_fcntl; // which cannot be interrupted
    const Writer& writer = BeginWriter(plan.m_count > 1 && !isInterrupted ? Loss::ALLOWED : Loss::NONE);
    LogLines(kLines);
    ShutdownLogging();
    LogLines(kLines);
    ShutdownLogging();
    Faults::gPlan.m_number = -1;
    const bool isRefused = isInterrupted && writer.m_taken < 2 * kLines;
    BeginWriter();
    const bool goesOn = Log();
    ShutdownLogging();
    return goesOn && !isRefused ? Faults::gPlannedCalls : -1;
}

// Each call of the kind in turn: returns how many there were, or -1 when something is broken.
int FailEach(const Call& call, int failures, int error)
{
    static int& calls =
        *static_cast<int*>(mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    int first = 0;
    bool isGood = true;
    do
    {
        const LogFolder folder;
        const Faults::Plan plan = {call.m_number, first, failures, error};
        calls = -1;
        const bool isEnded = IsGoodEnd(StartChild([&] { calls = Live(folder.Path(), call.m_maxFileSize, plan); }));
        const Verdict verdict(folder.Path());
        isGood = (isEnded && calls >= 0 && verdict.IsWhole() && verdict.Lost() == 0) ||
                 Report(call.m_name, verdict, false, "call %d of %d fails %dx with error %d", first, calls, failures, error);
    } while (isGood && first++ < calls);
    return isGood ? first - 1 : -1;
}

} // namespace

bool FailCalls(int)
{
    const auto fail = [](const Call& call)
    {
        int cases = 0;
        bool isGood = true;
        for (const int error : kErrors)
        {
            for (const int failures : {1, 3})
            {
                const int calls = error > 0 || call.m_number == SYS_writev ? FailEach(call, failures, error) : 0;
                cases += calls;
                isGood = isGood && calls >= 0;
            }
        }
        return Report(std::string(call.m_name) + (call.m_maxFileSize > 0 ? " fails, rotating" : " fails, appended"),
                      Verdict(), isGood && cases > 0, "%d cases", cases);
    };
    return RunAll(kCalls, fail);
}
