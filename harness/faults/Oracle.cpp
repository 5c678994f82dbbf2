#include "harness/faults/Oracle.h"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <string_view>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr int kMaxWriters = 4096;

struct Shared
{
    std::atomic<int> m_broken; // rows
    std::atomic<int> m_count;
    Writer m_writers[kMaxWriters];
};

// By all processes.
Shared& gShared =
    *static_cast<Shared*>(mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

thread_local Writer* tWriter = nullptr;

struct LineText
{
    LineText(int writer, int number)
    {
        std::snprintf(m_text, sizeof m_text, "<%d %d %*s>", writer, number, number % 61, "");
    }

    char m_text[128];
};

// Whether an entry starts here.
constexpr std::string_view kPrefix = "00/00/00 00:00:00.000 - WARNING    - [ThreadID: "; // 0: any digit
bool StartsEntry(std::string_view text)
{
    return text.size() >= kPrefix.size() &&
           std::equal(kPrefix.begin(), kPrefix.end(), text.begin(),
                      [](char form, char c) { return form == '0' ? std::isdigit(c) != 0 : form == c; });
}

} // namespace

Writer& BeginWriter(bool mayLose)
{
    tWriter = &gShared.m_writers[gShared.m_count++ % kMaxWriters];
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

LogFolder::~LogFolder()
{
    gShared.m_count = 0;
    tWriter = nullptr;
}

void OpenLog(const std::string& folder, unsigned int maxFileSize, unsigned int linesPerFlush)
{
    const auto strategy = maxFileSize > 0 ? LOGGING_STRATEGY_FILE_SIZE : LOGGING_STRATEGY_APPEND;
    LoggingSettings settings = {0, 0, linesPerFlush - 1, strategy, maxFileSize, 0};
    InitialiseLogging(true, ZR_LOG_WARNING, 1, (folder + "/app.log").c_str());
    SetLoggingOptions(&settings);
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
}

void Verdict::ReadLine(const std::string& line)
{
    int thread = 0;
    int writer = 0;
    int number = 0;
    if (StartsEntry(line) && std::sscanf(line.c_str() + kPrefix.size(), "%d] - <%d %d", &thread, &writer, &number) == 3 &&
        line.substr(kPrefix.size()) == std::to_string(thread) + "] - " + LineText(writer, number).m_text)
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
    for (std::size_t at = 1; at < line.size(); ++at)
    {
        m_joined += StartsEntry(std::string_view(line).substr(at)) ? 1 : 0;
    }
}

int Verdict::LostOf(const Writer& writer)
{
    const std::vector<bool>& found = m_found[static_cast<int>(&writer - gShared.m_writers)];
    const auto end = found.begin() + std::min<std::ptrdiff_t>(writer.m_taken, std::ssize(found));
    return writer.m_taken - static_cast<int>(std::count(found.begin(), end, true));
}

int Verdict::Lost()
{
    int lost = 0;
    for (int i = 0; i < gShared.m_count; ++i)
    {
        lost += gShared.m_writers[i].m_mayLose ? 0 : LostOf(gShared.m_writers[i]);
    }
    return lost;
}

void Report(const std::string& name, Verdict verdict, bool isElseKept, const char* format, ...)
{
    const bool isKept = isElseKept && verdict.IsKept();
    gShared.m_broken += isKept ? 0 : 1;
    std::printf("%-50s %-6s ", name.c_str(), isKept ? "kept" : "BROKEN");
    va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    va_end(arguments);
    if (verdict.m_whole > 0)
    {
        std::printf("; %d lines: %d lost, %d torn, %d joined, %d empty, %d doubled or of another thread", verdict.m_whole,
                    verdict.Lost(), verdict.m_torn + verdict.m_openEnds, verdict.m_joined, verdict.m_empty, verdict.m_wrong);
    }
    std::puts("");
    std::fflush(stdout);
}

bool IsAllKept()
{
    return gShared.m_broken == 0;
}

std::vector<std::jthread> CallForEver(const std::vector<void (*)()>& calls)
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

pid_t StartChild(const std::function<void()>& body, unsigned int timeoutSeconds)
{
    const pid_t child = fork();
    if (child == 0)
    {
        alarm(timeoutSeconds);
        body();
        _exit(0);
    }
    return child;
}

bool IsGoodEnd(pid_t child)
{
    int status = -1;
    return waitpid(child, &status, 0) == child && status == 0;
}
