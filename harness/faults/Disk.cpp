// Disks that are full and get room again, limits, and names that change under the log: nothing torn or doubled, lines lost
// only while nothing can be written, and the log goes on when it can.
#include "harness/faults/Oracle.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;

// Begins or ends a shortage of what the log needs. A child and its parent may end it at the same moment.
using SetShortage = void(bool isShort);

// Leaves less than two pages of room.
void FillUp(bool isShort)
{
    const std::string page(4096, 'b');
    const char* const name = "/dev/shm/ballast";
    const int ballast = open(name, O_CREAT | O_WRONLY | O_TRUNC, 0600);
    while (isShort && write(ballast, page.data(), page.size()) > 0)
    {
    }
    close(ballast);
    fs::resize_file(name, isShort ? fs::file_size(name) - page.size() : 0);
}

void LimitSize(bool isShort)
{
    constexpr rlim_t kRoom = 500;
    std::error_code isMissing;
    const auto size = fs::file_size(GetLogFilename(), isMissing);
    const rlimit limit = {!isShort ? RLIM_INFINITY : isMissing ? kRoom : size + kRoom, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &limit);
}

void Outlive(SetShortage* setShortage, unsigned int maxFileSize)
{
    const LogFolder folder;
    OpenLog(folder.Path(), maxFileSize);
    LogLines(400);
    ShutdownLogging();
    const Writer& loser = BeginWriter(kMayLose);
    setShortage(true);
    LogLines(2600);
    setShortage(false);
    LogLines(200); // until the next flush finds the room
    BeginWriter();
    LogLines(800);
    ShutdownLogging();
    Verdict verdict(folder.Path());
    const int lost = verdict.LostOf(loser);
    Report("... then room, files of " + std::to_string(maxFileSize), verdict, lost > 0, "%d lost meanwhile", lost);
}

// The shortage cuts a line, the child of a fork logs beside it, and both have room again.
void ForkIn(SetShortage* setShortage, int rounds)
{
    constexpr int kLines = 120; // more than two pages, less than a buffer
    const LogFolder folder;
    int failed = 0;
    OpenLog(folder.Path());
    for (int round = 0; round < rounds; ++round)
    {
        setShortage(true);
        LogLines(kLines);
        const auto logOn = [&]
        {
            setShortage(false);
            LogLines(kLines);
            ShutdownLogging();
        };
        const pid_t child = StartChild([&] { LogLines(kLines), logOn(); });
        const bool isAlone = round % 2 == 0; // else both write at a time
        failed += isAlone && !IsGoodEnd(child) ? 1 : 0;
        logOn();
        failed += !isAlone && !IsGoodEnd(child) ? 1 : 0;
    }
    Report("... and forks", Verdict(folder.Path()), failed == 0, "%d forks, %d hung or crashed", rounds, failed);
}

void OutliveAll(SetShortage* setShortage, int scale)
{
    Outlive(setShortage, 0);
    Outlive(setShortage, 20000);
    ForkIn(setShortage, 10 * scale);
}

std::string gLog;

void FailForATime()
{
    ShutdownLogging();
    fs::remove(gLog);
    fs::create_symlink("/dev/full", gLog);
    LogLines(100);
    ShutdownLogging();
    fs::remove(gLog);
}

// What happens to the file of an open log. Lines that were in a file that went are lost.
constexpr struct
{
    const char* m_name;
    void (*m_change)();
    bool m_mayLose;
} kChanges[] = {{CALL(fs::rename(gLog, gLog + ".old")), false},
                {CALL(fs::remove(gLog)), kMayLose},
                {"/dev/full in its place for a time", FailForATime, kMayLose}};

} // namespace

void FillDisk(int scale)
{
    const uid_t user = getuid();
    const gid_t group = getgid();
    if (unshare(CLONE_NEWNS) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0)
    {
        std::ofstream("/proc/self/setgroups") << "deny";
        std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
        std::ofstream("/proc/self/gid_map") << "0 " << group << " 1";
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/dev/shm", "tmpfs", 0, "size=8m") != 0)
    {
        std::puts("disk full: NOT RUN, no file system can be mounted here; the file size limit stands in for it");
        return;
    }
    setenv("TMPDIR", "/dev/shm", 1);
    std::puts("disk full ...");
    OutliveAll(FillUp, scale);
}

void LimitFileSize(int scale)
{
    std::signal(SIGXFSZ, SIG_IGN);
    std::puts("file size limit ...");
    OutliveAll(LimitSize, scale);
}

void ChangeFiles(int)
{
    for (const auto& change : kChanges)
    {
        const LogFolder folder;
        gLog = folder / "app.log";
        OpenLog(folder.Path());
        BeginWriter(change.m_mayLose);
        LogLines(50);
        change.m_change();
        LogLines(25);
        ShutdownLogging();
        BeginWriter();
        LogLines(25);
        ShutdownLogging();
        Report(change.m_name, Verdict(folder.Path()), true, "the file of an open log");
    }
}
