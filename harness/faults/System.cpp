// What the system refuses: calls that fail, disks that are full and get room again, limits, and names that change under the
// log. Nothing is torn or doubled, lines are lost only while nothing can be written, and the log goes on when it can.
#include "harness/faults/Oracle.h"
#include "support/Faults.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;

// Leaves a page.
void FillUp(bool isShort)
{
    const int ballast = open("/dev/shm/ballast", O_CREAT | O_WRONLY | O_TRUNC, 0600);
    const auto room = static_cast<off_t>(fs::space("/dev/shm").available);
    posix_fallocate(ballast, 0, isShort ? room - 4096 : 1);
    close(ballast);
}

void LimitSize(bool isShort)
{
    constexpr rlim_t kRoom = 500;
    const std::string log = GetLogFilename();
    const rlim_t size = fs::exists(log) ? fs::file_size(log) : 0;
    const rlimit limit = {isShort ? size + kRoom : RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &limit);
}

// Begins or ends a shortage of what the log needs. A child and its parent may end it at the same moment.
using SetShortage = void(bool isShort);

void Outlive(const std::string& name, SetShortage* setShortage, unsigned int maxFileSize)
{
    const LogFolder folder(maxFileSize);
    LogLines(400);
    ShutdownLogging();
    BeginWriter(kMayLose);
    setShortage(true);
    LogLines(2600);
    setShortage(false);
    LogLines(200); // until the next flush finds the room
    BeginWriter();
    LogLines(800);
    const Verdict verdict = folder.Close();
    Report(name + ", then room, files of " + std::to_string(maxFileSize), verdict, verdict.m_dropped > 0);
}

// The shortage cuts a line, the child of a fork logs beside it, alone in turn, and both have room again. At a time they log
// only then: one that cuts its line off a full file may take what the other has appended at that moment.
void ForkIn(const std::string& name, SetShortage* setShortage, int rounds, bool isInTurn)
{
    constexpr int kLines = 120; // more than two pages, less than a buffer
    const auto logOn = [=]
    {
        setShortage(false);
        LogLines(kLines);
        ShutdownLogging();
    };
    const auto fork = [=]
    {
        setShortage(true);
        LogLines(kLines);
        const pid_t child = StartChild([=] { LogLines(isInTurn ? kLines : 0), logOn(); });
        waitid(P_PID, static_cast<id_t>(child), nullptr, WEXITED | WNOWAIT | (isInTurn ? 0 : WNOHANG));
        logOn();
        Await(child);
    };
    Report(name + " and forks, " + (isInTurn ? "in turn" : "both at a time"), Repeat(rounds, fork));
}

void OutliveAll(const std::string& name, SetShortage* setShortage, int scale)
{
    Outlive(name, setShortage, 0);
    Outlive(name, setShortage, 20000);
    ForkIn(name, setShortage, 5 * scale, true);
    ForkIn(name, setShortage, 5 * scale, false);
}

void FailForATime()
{
    const std::string log = GetLogFilename();
    ShutdownLogging();
    fs::remove(log);
    fs::create_symlink("/dev/full", log);
    LogLines(100);
    ShutdownLogging();
    fs::remove(log);
}

// Lines that were in a file that went are lost.
void Change(const char* name, void (*change)(), bool mayLose)
{
    const LogFolder folder;
    BeginWriter(mayLose);
    LogLines(50);
    change();
    LogLines(25);
    ShutdownLogging();
    BeginWriter();
    LogLines(25);
    Report(name, folder.Close());
}

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

void FillDisk(int scale)
{
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/dev/shm", "tmpfs", 0, "size=8m") != 0)
    {
        std::puts("disk full: NOT RUN, nothing can be mounted here (unshare -rm); the file size limit stands in for it");
        return;
    }
    setenv("TMPDIR", "/dev/shm", 1);
    OutliveAll("disk full", FillUp, scale);
}

void LimitFileSize(int scale)
{
    std::signal(SIGXFSZ, SIG_IGN);
    OutliveAll("file size limit", LimitSize, scale);
}

void ChangeFiles(int)
{
    Change(CALL(fs::rename(GetLogFilename(), GetLogFilename() + std::string(".old"))), false);
    Change(CALL(fs::remove(GetLogFilename())), kMayLose);
    Change(CALL(FailForATime()), kMayLose);
}

// Every system call of a log's life fails in turn, once and three times in a row, with every error that disks and tables of
// descriptors give. A line may be lost only when it was refused, or, after more than one failure, when its file was left
// while nothing could be written.
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
