// Disks that are full and get room again, limits, and names that change under the log: nothing torn or doubled, lines lost
// only while nothing can be written, and the log goes on when it can.
#include "harness/faults/Oracle.h"

#include <array>
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

// Something of which the log has too little, for a time. Also ended by a child and its parent at the same moment.
struct Shortage
{
    const char* m_name;
    void (*m_begin)(const LogFolder& folder);
    void (*m_end)(const LogFolder& folder);
};

// Leaves less than two pages of room.
void FillUp(const LogFolder& folder)
{
    const std::string page(4096, 'b');
    const int ballast = open((folder / "ballast").c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
    while (write(ballast, page.data(), page.size()) > 0)
    {
    }
    close(ballast);
    fs::resize_file(folder / "ballast", fs::file_size(folder / "ballast") - page.size());
}

void SetFileSizeLimit(rlim_t size)
{
    const rlimit limit = {size, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &limit);
}

constexpr Shortage kFullDisk = {"disk full", FillUp,
                                [](const LogFolder& folder)
                                {
                                    fs::resize_file(folder / "ballast", 0);
                                }};
constexpr Shortage kSmallFiles = {"file size limit",
                                  [](const LogFolder&)
                                  {
                                      std::error_code isMissing;
                                      const auto size = fs::file_size(GetLogFilename(), isMissing);
                                      SetFileSizeLimit(isMissing ? 500 : size + 500);
                                  },
                                  [](const LogFolder&)
                                  {
                                      SetFileSizeLimit(RLIM_INFINITY);
                                  }};

bool Outlive(const Shortage& shortage, const LogFolder& folder, unsigned int maxFileSize)
{
    const std::string logs = folder / "logs" + std::to_string(maxFileSize);
    fs::create_directory(logs);
    OpenLog(logs, maxFileSize);
    LogLines(400);
    ShutdownLogging();
    const Writer& loser = BeginWriter(Loss::ALLOWED);
    shortage.m_begin(folder);
    LogLines(2600);
    shortage.m_end(folder);
    LogLines(200); // until the next flush finds the room
    BeginWriter();
    LogLines(800);
    ShutdownLogging();
    const Verdict verdict(logs);
    const int lost = verdict.LostOf(loser);
    return Report(std::string(shortage.m_name) + (maxFileSize > 0 ? ", then room, rotating" : ", then room, appended"),
                  verdict, lost > 0, "%d lost meanwhile", lost);
}

// The shortage cuts a line, the child of a fork logs beside it, and both have room again.
bool ForkIn(const Shortage& shortage, const LogFolder& folder, int rounds)
{
    constexpr int kLines = 120; // more than two pages, less than a buffer
    const std::string logs = folder / "logs";
    int failed = 0;
    fs::create_directory(logs);
    OpenLog(logs);
    for (int round = 0; round < rounds; ++round)
    {
        shortage.m_begin(folder);
        LogLines(kLines);
        const auto logToo = [&]
        {
            LogLines(kLines);
            shortage.m_end(folder);
            LogLines(kLines);
            ShutdownLogging();
        };
        const pid_t child = StartChild(logToo, 10);
        const bool isAlone = round % 2 == 0; // else both write at a time
        failed += isAlone && !IsGoodEnd(child) ? 1 : 0;
        shortage.m_end(folder);
        LogLines(kLines);
        ShutdownLogging();
        failed += !isAlone && !IsGoodEnd(child) ? 1 : 0;
    }
    return Report(std::string(shortage.m_name) + ", forks", Verdict(logs), failed == 0, "%d forks, %d hung or crashed",
                  rounds, failed);
}

bool OutliveAll(const Shortage& shortage, int scale)
{
    const auto run = [&](unsigned int maxFileSize)
    {
        const LogFolder folder;
        return Outlive(shortage, folder, maxFileSize);
    };
    const bool isGood = RunAll(std::array{0u, 20000u}, run);
    return ForkIn(shortage, LogFolder(), 10 * scale) && isGood;
}

// What happens to the file of an open log. Lines that were in a file that went are lost.
constexpr struct Change
{
    const char* m_name;
    Loss m_lossBefore;
    void (*m_change)(const LogFolder& folder);
} kChanges[] = {{"renamed", Loss::NONE,
                 [](const LogFolder& folder)
                 {
                     fs::rename(folder / "app.log", folder / "old.log");
                 }},
                {"deleted", Loss::ALLOWED,
                 [](const LogFolder& folder)
                 {
                     fs::remove(folder / "app.log");
                 }},
                {"/dev/full in its place for a time", Loss::ALLOWED,
                 [](const LogFolder& folder)
                 {
                     ShutdownLogging();
                     fs::remove(folder / "app.log");
                     fs::create_symlink("/dev/full", folder / "app.log");
                     LogLines(100);
                     ShutdownLogging();
                     fs::remove(folder / "app.log");
                 }}};

} // namespace

bool FillDisk(int scale)
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
        return true;
    }
    setenv("TMPDIR", "/dev/shm", 1);
    return OutliveAll(kFullDisk, scale);
}

bool LimitFileSize(int scale)
{
    std::signal(SIGXFSZ, SIG_IGN);
    return OutliveAll(kSmallFiles, scale);
}

bool ChangeFiles(int)
{
    const auto outlive = [](const Change& change)
    {
        const LogFolder folder;
        OpenLog(folder.Path());
        BeginWriter(change.m_lossBefore);
        LogLines(50);
        change.m_change(folder);
        LogLines(25);
        ShutdownLogging();
        BeginWriter();
        LogLines(25);
        ShutdownLogging();
        return Report(change.m_name, Verdict(folder.Path()), true, "the file of an open log");
    };
    return RunAll(kChanges, outlive);
}
