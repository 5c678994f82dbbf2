// faults [SCALE [CASE...]]: runs the cases, or all. SCALE is 1 for the short form and 10 for the figures of
// docs/reliability.md. Logs are written below TMPDIR, or else in /dev/shm.
#include "harness/faults/Oracle.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr struct
{
    const char* m_name;
    Case* m_run;
} kCases[] = {{"calls", FailCalls},   {"memory", FailMemory}, {"forks", Fork},          {"kills", Kill},
              {"signals", Interrupt}, {"ends", EndProcess},   {"threads", EndThreads},  {"races", Race},
              {"sharing", ShareFile}, {"disk", FillDisk},     {"limit", LimitFileSize}, {"changes", ChangeFiles},
              {"rotation", Rotate},   {"unloading", Unload}};
constexpr int kTimeoutSeconds = 60; // of a case in its short form

// By all processes.
struct Shared
{
    std::atomic<int> m_count;
    Writer m_writers[65536];
};
Shared& gShared =
    *static_cast<Shared*>(mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

thread_local Writer* tWriter = nullptr;
const int kOutput = dup(STDOUT_FILENO);
bool gIsAllKept = true; // rows of this process

struct LineText
{
    LineText(int writer, int number)
    {
        std::snprintf(m_text, sizeof m_text, "<%d %d %*s>", writer, number, number % 61, "");
    }

    char m_text[128];
};

} // namespace

Writer& BeginWriter(bool mayLose)
{
    tWriter = &gShared.m_writers[gShared.m_count++];
    tWriter->m_thread = gettid();
    tWriter->m_taken = 0;
    tWriter->m_mayLose = mayLose;
    return *tWriter;
}

bool Log(Writer& writer)
{
    const LineText line(static_cast<int>(&writer - gShared.m_writers), writer.m_taken);
    const bool isTaken = LogMessage(ZR_LOG_WARNING, 1, "", line.m_text);
    writer.m_taken += isTaken ? 1 : 0;
    return isTaken;
}

bool Log()
{
    return Log(tWriter != nullptr && tWriter->m_thread == gettid() ? *tWriter : BeginWriter());
}

void LogLines(int count)
{
    for (int i = 0; i < count; ++i)
    {
        Log();
    }
}

void Verdict::Read(const std::string& folder)
{
    m_openEnds = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
    {
        std::streamoff& readTo = m_readTo[entry.path()];
        std::ifstream file(entry.path(), std::ios::binary);
        file.seekg(readTo);
        std::string line;
        while (std::getline(file, line) && !file.eof())
        {
            readTo += static_cast<std::streamoff>(line.size()) + 1;
            ReadLine(line);
        }
        m_openEnds += line.empty() ? 0 : 1;
    }
    m_lost = m_dropped = 0;
    for (int i = 0; i < gShared.m_count; ++i)
    {
        const Writer& writer = gShared.m_writers[i];
        const std::vector<bool>& found = m_found[i];
        const auto end = found.begin() + std::min<std::ptrdiff_t>(writer.m_taken, std::ssize(found));
        (writer.m_mayLose ? m_dropped : m_lost) += writer.m_taken - static_cast<int>(std::count(found.begin(), end, true));
    }
}

void Verdict::ReadLine(const std::string& line)
{
    constexpr std::size_t kThreadAt = 48;
    constexpr const char* kForm = "%*2[0-9]/%*2[0-9]/%*2[0-9] %*2[0-9]:%*2[0-9]:%*2[0-9].%*3[0-9] - WARNING    - [ThreadID: "
                                  "%d] - <%d %d";
    int thread = 0;
    int writer = 0;
    int number = 0;
    const bool isScanned = std::sscanf(line.c_str(), kForm, &thread, &writer, &number) == 3;
    const std::string rest = std::to_string(thread) + "] - " + LineText(writer, number).m_text;
    if (isScanned && line.size() == kThreadAt + rest.size() && line.ends_with(rest))
    {
        std::vector<bool>& found = m_found[writer];
        found.resize(std::max(found.size(), static_cast<std::size_t>(number) + 1));
        auto isFound = found.begin() + number;
        m_wrong += *isFound || thread != gShared.m_writers[writer].m_thread ? 1 : 0;
        *isFound = true;
        ++m_whole;
        return;
    }
    ++(line.empty() ? m_empty : m_torn);
    m_joined += line.find("ThreadID: ", kThreadAt) != std::string::npos ? 1 : 0;
}

LogFolder::LogFolder(unsigned int maxFileSize, int linesPerFlush)
{
    const auto strategy = maxFileSize > 0 ? LOGGING_STRATEGY_FILE_SIZE : LOGGING_STRATEGY_APPEND;
    LoggingSettings settings = {0, 0, static_cast<unsigned int>(linesPerFlush - 1), strategy, maxFileSize, 0};
    InitialiseLogging(true, ZR_LOG_WARNING, 1, (*this / "app.log").c_str());
    SetLoggingOptions(&settings);
}

LogFolder::~LogFolder()
{
    gShared.m_count = 0;
    tWriter = nullptr;
}

Verdict LogFolder::Close() const
{
    ShutdownLogging();
    Verdict verdict;
    verdict.Read(*this / "");
    return verdict;
}

void Report(const std::string& name, const Verdict& verdict, bool isElseKept, const Figures& figures)
{
    const bool isKept = isElseKept && verdict.IsKept();
    gIsAllKept = gIsAllKept && isKept;
    dprintf(kOutput, "%-50s %s  %d lines", name.c_str(), isKept ? "kept  " : "BROKEN", verdict.m_whole);
    dprintf(kOutput, ": %d lost, %d that may be lost, %d torn, %d joined, %d empty, %d doubled or of another thread",
            verdict.m_lost, verdict.m_dropped, verdict.m_torn + verdict.m_openEnds, verdict.m_joined, verdict.m_empty,
            verdict.m_wrong);
    for (const auto& [what, number] : figures)
    {
        dprintf(kOutput, "; %ld %s", number, what);
    }
    dprintf(kOutput, "\n");
}

std::vector<std::jthread> CallForEver(const Calls& calls)
{
    std::vector<std::jthread> threads;
    for (void (*const call)() : calls)
    {
        const auto callForEver = [call](const std::stop_token& stop)
        {
            while (!stop.stop_requested())
            {
                call();
            }
        };
        threads.emplace_back(callForEver);
    }
    return threads;
}

Verdict Repeat(int rounds, const std::function<void()>& call, const Calls& beside)
{
    const LogFolder folder;
    sleep(beside.empty() ? 0 : 1); // the log knows the time of this second without asking
    std::vector<std::jthread> threads = CallForEver(beside);
    for (int i = 0; i < rounds; ++i)
    {
        call();
    }
    threads.clear();
    return folder.Close();
}

pid_t StartChild(const std::function<void()>& body, int timeoutSeconds)
{
    const pid_t child = fork();
    if (child == 0)
    {
        alarm(static_cast<unsigned int>(timeoutSeconds));
        body();
        _exit(0);
    }
    return child;
}

void Await(pid_t child, const std::string& name)
{
    int status = -1;
    if (waitpid(child, &status, 0) != child || status != 0)
    {
        Report(name + ": hung or crashed, or see above", Verdict(), false);
    }
}

int main(int count, char** arguments)
{
    const int scale = count > 1 ? std::max(std::atoi(arguments[1]), 1) : 1;
    std::vector<std::string> names(arguments + std::min(count, 2), arguments + count);
    setenv("TMPDIR", "/dev/shm", 0);
    for (const auto& row : kCases)
    {
        const auto run = [&]
        {
            gIsAllKept = true;
            row.m_run(scale);
            std::exit(gIsAllKept ? 0 : 1); // as a host ends, with what a sanitizer has to say then
        };
        if (std::erase(names, row.m_name) > 0 || count <= 2)
        {
            Await(StartChild(run, kTimeoutSeconds * scale), row.m_name);
        }
    }
    for (const std::string& name : names)
    {
        Report(name + ": there is no such case", Verdict(), false);
    }
    return gIsAllKept ? 0 : 1;
}
