// Disks that are full and get room again, limits, and names that change under the log: nothing torn or doubled, lines lost
// only while nothing can be written, and the log goes on when it can.
#include "Oracle.h"
#include "Subject.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr std::size_t kMaxFileSize = 20000;
constexpr int kNobody = 65534;

void Write(int first, int last, int* taken = nullptr, int writer = 0)
{
    for (int i = first; i < last; ++i)
    {
        const bool isTaken = Subject::Log(LineText(writer, i).c_str());
        if (taken != nullptr)
        {
            *taken += isTaken ? 1 : 0;
        }
    }
}

// Lines up to `whole` and from `again` on must be there; those between may be lost.
bool ReportGap(const std::string& name, const Verdict& verdict, int status, int whole, int again, int end)
{
    int lostBefore = 0;
    int lostBetween = 0;
    int lostAfter = 0;
    for (int i = 0; i < end; ++i)
    {
        int& lost = i < whole ? lostBefore : i < again ? lostBetween : lostAfter;
        lost += verdict.Has(0, i) ? 0 : 1;
    }
    char figures[200];
    std::snprintf(figures, sizeof figures, "lost: %d before, %d during, %d after; %d torn, %d doubled%s", lostBefore,
                  lostBetween, lostAfter, verdict.m_torn + verdict.m_openEnds, verdict.m_doubled,
                  status != 0 ? ", crashed" : "");
    return Report(name, status == 0 && lostBefore == 0 && lostAfter == 0 && verdict.IsWhole(), figures);
}

bool MountSmallDisk(const std::string& folder)
{
    return (unshare(CLONE_NEWNS) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0) &&
           mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=128k") == 0;
}

// The disk is filled by somebody else, who takes that away again later.
bool DiskFull(bool rotating)
{
    constexpr int kEnd = 4000;
    constexpr int kFull = 400;
    constexpr int kRoom = 3000;
    constexpr int kNotMounted = 77;
    const std::string name = rotating ? "disk full, then room, rotating" : "disk full, then room, appended";
    const ScratchFolder folder;
    const ScratchFolder result;
    const auto body = [&]
    {
        if (!MountSmallDisk(folder.Path()))
        {
            _exit(kNotMounted);
        }
        const std::string ballast = folder.Path() + "/ballast";
        Subject::Open(folder.Path(), rotating ? kMaxFileSize : 0);
        Write(0, kFull);
        Subject::Flush();
        std::ofstream(ballast, std::ios::binary) << std::string(1 << 20, 'b') << std::flush;
        Write(kFull, kRoom);
        std::filesystem::remove(ballast);
        // So small that the rest would fill the disk again: what is there goes to the result first.
        for (int i = kRoom; i < kEnd; ++i)
        {
            Subject::Log(LineText(0, i).c_str());
            if (i == kRoom + 200)
            {
                mount(nullptr, folder.Path().c_str(), nullptr, MS_REMOUNT, "size=4m");
            }
        }
        Subject::Close();
        std::filesystem::copy(folder.Path(), result.Path(), std::filesystem::copy_options::recursive);
    };
    const int status = RunChild(body);
    if (WIFEXITED(status) && WEXITSTATUS(status) == kNotMounted)
    {
        std::printf("%-8s %-44s not run: no file system can be mounted here\n", Subject::kName, name.c_str());
        return true;
    }
    // A host that logs on needs a few lines more before the next flush finds the room.
    return ReportGap(name, Judge(result.Path()), status, kFull, kRoom + 200, kEnd);
}

bool FileSizeLimit()
{
    const ScratchFolder folder;
    const auto body = [&]
    {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit small = {10000, RLIM_INFINITY};
        const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &small);
        Subject::Open(folder.Path(), 0);
        Write(0, 3000);
        setrlimit(RLIMIT_FSIZE, &none);
        Write(3000, 4000);
        Subject::Close();
    };
    const int status = RunChild(body);
    return ReportGap("file size limit of the process, lifted", Judge(folder.Path()), status, 50, 3000, 4000);
}

// The limit cuts a line, the child of a fork logs beside it, and both have room again.
bool LimitedAndForked()
{
    constexpr int kRounds = 100;
    constexpr int kLines = 40;
    const ScratchFolder folder;
    const auto body = [&]
    {
        std::signal(SIGXFSZ, SIG_IGN);
        Subject::Open(folder.Path(), 0);
        for (int round = 0; round < kRounds; ++round)
        {
            const std::uintmax_t size = round == 0 ? 0 : std::filesystem::file_size(folder.Path() + "/app.log");
            const rlimit small = {size + 500, RLIM_INFINITY};
            const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
            setrlimit(RLIMIT_FSIZE, &small);
            Write(round * kLines, (round + 1) * kLines);
            const pid_t child = fork();
            setrlimit(RLIMIT_FSIZE, &none);
            if (child == 0)
            {
                Write(round * kLines, (round + 1) * kLines, nullptr, 1);
                Subject::Close();
                _exit(0);
            }
            if (round % 2 == 0) // else both write at a time
            {
                waitpid(child, nullptr, 0);
            }
            Subject::Close();
            waitpid(child, nullptr, 0);
        }
    };
    const int status = RunChild(body);
    const Verdict verdict = Judge(folder.Path());
    const int lost = verdict.Lost(0, kRounds * kLines) + verdict.Lost(1, kRounds * kLines);
    return Report("file size limit, forks", status == 0 && verdict.IsWhole() && lost == 0,
                  Figures("%d forks: status %x, %d torn, %d doubled, %d lost", kRounds, static_cast<unsigned int>(status),
                          verdict.m_torn, verdict.m_doubled, lost));
}

bool DeviceFull()
{
    const ScratchFolder folder;
    const auto body = [&]
    {
        const std::string path = folder.Path() + "/app.log";
        std::filesystem::create_symlink("/dev/full", path);
        Subject::Open(folder.Path(), 0);
        Write(0, 2000);
        Subject::Close();
        std::filesystem::remove(path);
        Write(2000, 2500);
        Subject::Close();
    };
    const int status = RunChild(body);
    return ReportGap("/dev/full, closed, then a file", Judge(folder.Path()), status, 0, 2000, 2500);
}

// The log goes on where it is, under its new name or under none; closed, it is made anew.
bool Moved(const char* name, void (*change)(const std::string& path), int whole, int again)
{
    const ScratchFolder folder;
    const std::string inner = folder.Path() + "/logs";
    const ScratchFolder moved;
    const auto body = [&]
    {
        std::filesystem::create_directory(inner);
        Subject::Open(inner, 0);
        Write(0, 25);
        Subject::Flush();
        Subject::Close();
        Write(25, 45);
        change(inner);
        Write(45, 75);
        Subject::Close();
        Write(75, 100);
        Subject::Close();
    };
    const int status = RunChild(body);
    return ReportGap(name, Judge(std::filesystem::exists(inner) ? inner : folder.Path()), status, whole, again, 100);
}

bool ReadOnlyFolder()
{
    const ScratchFolder folder;
    auto* taken = static_cast<int*>(SharedMemory(2 * sizeof(int)));
    const auto body = [&]
    {
        chmod(folder.Path().c_str(), 0755);
        if (getuid() == 0)
        {
            if (chown(folder.Path().c_str(), kNobody, kNobody) != 0 || setuid(kNobody) != 0)
            {
                _exit(1);
            }
        }
        chmod(folder.Path().c_str(), 0555);
        Subject::Open(folder.Path(), 0);
        Write(0, 50, &taken[0]);
        chmod(folder.Path().c_str(), 0755);
        Write(50, 100, &taken[1]);
        Subject::Close();
    };
    const int status = RunChild(body);
    const Verdict verdict = Judge(folder.Path());
    const bool honest = taken[0] == 0 && taken[1] == 50;
    return ReportGap(honest ? "read-only folder, lines refused" : "read-only folder, lines taken and lost", verdict, status,
                     0, 50, 100) &&
           (honest || !Subject::kIsLibrary);
}

bool FolderInTheWay()
{
    const ScratchFolder folder;
    const auto body = [&]
    {
        std::filesystem::create_directory(folder.Path() + "/app.1.log");
        std::filesystem::create_directory(folder.Path() + "/app.3.log");
        Subject::Open(folder.Path(), kMaxFileSize);
        Write(0, 1000);
        Subject::Close();
    };
    const int status = RunChild(body);
    return ReportGap("directories in the place of numbered files", Judge(folder.Path()), status, 1000, 1000, 1000);
}

} // namespace

int main()
{
    bool good = DiskFull(false);
    good = (!Subject::kRotates || DiskFull(true)) && good;
    good = FileSizeLimit() && good;
    good = LimitedAndForked() && good;
    good = DeviceFull() && good;
    good = Moved(
               "renamed under the log",
               [](const std::string& path) { std::filesystem::rename(path + "/app.log", path + "/old.log"); }, 100, 100) &&
           good;
    good =
        Moved(
            "deleted under the log", [](const std::string& path) { std::filesystem::remove(path + "/app.log"); }, 0, 75) &&
        good;
    good = Moved(
               "folder removed and made again",
               [](const std::string& path)
               {
                   std::filesystem::remove_all(path);
                   std::filesystem::create_directory(path);
               },
               0, 75) &&
           good;
    good = ReadOnlyFolder() && good;
    good = (!Subject::kRotates || FolderInTheWay()) && good;
    return good ? 0 : 1;
}
