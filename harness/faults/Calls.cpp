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

struct Failures
{
    unsigned int m_maxFileSize;
    long m_call;
    int m_error;
    unsigned int m_count;
};

// A log's life: opened, filled over several flushes, closed, opened again, closed.
//   returns whether there were enough calls for one to fail
bool Live(const Failures& failures, unsigned int first)
{
    constexpr int kLines = 22;
    constexpr long kShortSize = 100; // in the second line
    const LogFolder folder;
    OpenLog(folder.Path(), failures.m_maxFileSize);
    Faults::gCalls.assign(first, {LONG_MAX, 0});
    Faults::gCalls.push_back({kShortSize, failures.m_error});
    Faults::gCalls.resize(first + failures.m_count, {0, failures.m_error == kShortWrite ? ENOSPC : failures.m_error});
    Faults::gCall = failures.m_call;
    const bool isInterrupted = failures.m_error == EINTR && failures.m_call != SYS_fcntl; // which cannot be interrupted
    const Writer& writer = BeginWriter(failures.m_count > 1 && !isInterrupted);
    LogLines(kLines);
    ShutdownLogging();
    LogLines(kLines);
    ShutdownLogging();
    Faults::gCall = -1;
    const bool isRefused = isInterrupted && writer.m_taken < 2 * kLines;
    BeginWriter();
    const bool goesOn = Log();
    ShutdownLogging();
    Verdict verdict(folder.Path());
    if (isRefused || !goesOn || !verdict.IsKept())
    {
        Report("a system call fails", verdict, false, "call %u of number %ld fails %ux with error %d, files of %u bytes",
               first, failures.m_call, failures.m_count, failures.m_error, failures.m_maxFileSize);
    }
    return Faults::gCalls.size() < failures.m_count;
}

} // namespace

void FailCalls(int)
{
    close(STDIN_FILENO); // so that the log's descriptor has to be moved
    unsigned int cases = 0;
    for (const unsigned int maxFileSize : {0u, 1500u})
    {
        for (const long call : kCalls)
        {
            for (const int error : kErrors)
            {
                for (const unsigned int count : {1u, 3u})
                {
                    unsigned int first = 0;
                    while (Live({maxFileSize, call, error, count}, first))
                    {
                        ++first;
                    }
                    cases += first;
                }
            }
        }
    }
    Report("system calls fail", Verdict(), cases > 0, "%u cases; broken ones are above", cases);
}
