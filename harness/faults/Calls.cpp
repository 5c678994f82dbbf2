// Every system call of a log's life fails in turn, once and three times in a row, with every error that disks and tables of
// descriptors give. A line may be lost only when it was refused, or, after more than one failure, when its file was left
// while nothing could be written. Nothing is ever torn or doubled.
#include "harness/faults/Oracle.h"
#include "support/Faults.h"

#include <cerrno>
#include <climits>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

constexpr long kCalls[] = {SYS_openat, Faults::kSearch, SYS_writev,  SYS_close,
                           SYS_fcntl,  SYS_fstat,       SYS_pread64, SYS_getdents64};
constexpr int kShortWrite = 0; // and no room after it; other calls succeed, once
constexpr int kErrors[] = {ENOSPC, EIO, EMFILE, EINTR, EDQUOT, EACCES, EAGAIN, kShortWrite};

// A log's life: opened, filled over several flushes, closed, opened again, closed.
//   returns whether there were enough calls for one to fail
bool Live(unsigned int maxFileSize, long call, int error, unsigned int count, unsigned int first)
{
    constexpr int kLines = 22;
    constexpr long kShortSize = 100; // in the second line
    const LogFolder folder(maxFileSize);
    Faults::gCalls.assign(first, {LONG_MAX, 0});
    Faults::gCalls.push_back({kShortSize, error});
    Faults::gCalls.resize(first + count, {0, error == kShortWrite ? ENOSPC : error});
    Faults::gCall = call;
    const bool isInterrupted = error == EINTR && call != SYS_fcntl; // which cannot be interrupted
    const Writer& writer = BeginWriter(count > 1 && !isInterrupted);
    LogLines(kLines);
    ShutdownLogging();
    LogLines(kLines);
    ShutdownLogging();
    Faults::gCall = -1;
    const bool isRefused = isInterrupted && writer.m_taken < 2 * kLines;
    BeginWriter();
    const bool goesOn = Log();
    const Verdict verdict = folder.Close();
    if (isRefused || !goesOn || !verdict.IsKept())
    {
        Report("a system call fails", verdict, false,
               {{"is its number", call}, {"succeed", first}, {"fail", count}, {"error", error}, {"max. size", maxFileSize}});
    }
    return Faults::gCalls.size() < count;
}

} // namespace

void FailCalls(int)
{
    close(STDIN_FILENO); // so that the log's descriptor has to be moved
    unsigned int cases = 0;
    for (const long call : kCalls)
    {
        for (const int error : kErrors)
        {
            for (const unsigned int kind : {0, 1, 2, 3})
            {
                unsigned int first = 0;
                while (Live(kind % 2 * 1500, call, error, kind < 2 ? 1 : 3, first))
                {
                    ++first;
                }
                cases += first;
            }
        }
    }
    Report("system calls fail", Verdict(), cases > 0, {{"cases; broken ones are above", cases}});
}
