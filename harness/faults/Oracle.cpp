#include "harness/faults/Oracle.h"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr int kMaxWriters = 4096;

struct Writers
{
    std::atomic<int> m_count;
    Writer m_writers[kMaxWriters];
};

// Shared by all processes.
Writers& gWriters =
    *static_cast<Writers*>(mmap(nullptr, sizeof(Writers), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

thread_local Writer* tWriter = nullptr;

using LineText = char[128];

void MakeText(LineText& text, int writer, int number)
{
    constexpr int kMaxPadding = 60;
    static const std::string padding(kMaxPadding, 'x');
    std::snprintf(text, sizeof text, "<%d %d %.*s>", writer, number, number % (kMaxPadding + 1), padding.c_str());
}

// Whether an entry starts here.
constexpr std::string_view kPrefix = "00/00/00 00:00:00.000 - WARNING    - [ThreadID: "; // 0: any digit
bool StartsEntry(std::string_view text)
{
    return text.size() >= kPrefix.size() &&
           std::equal(kPrefix.begin(), kPrefix.end(), text.begin(),
                      [](char form, char c) { return form == '0' ? std::isdigit(c) != 0 : form == c; });
}

} // namespace

Writer& BeginWriter(Loss loss)
{
    tWriter = &gWriters.m_writers[gWriters.m_count++ % kMaxWriters];
    tWriter->m_thread = gettid();
    tWriter->m_taken = 0;
    tWriter->m_mayLose = loss == Loss::ALLOWED;
    return *tWriter;
}

bool Log(Writer& writer)
{
    LineText text;
    MakeText(text, static_cast<int>(&writer - gWriters.m_writers), writer.m_taken);
    const bool isTaken = LogMessage(ZR_LOG_WARNING, 1, "", text);
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
    gWriters.m_count = 0;
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
        for (std::string line; std::getline(file, line);)
        {
            if (file.eof())
            {
                ++m_openEnds;
                break;
            }
            readTo += static_cast<std::streamoff>(line.size()) + 1;
            ReadLine(line);
        }
    }
}

void Verdict::ReadLine(const std::string& line)
{
    int thread = 0;
    int writer = 0;
    int number = 0;
    int textAt = 0;
    LineText text = "";
    if (StartsEntry(line) &&
        std::sscanf(line.c_str() + kPrefix.size(), "%d] - %n<%d %d", &thread, &textAt, &writer, &number) == 3)
    {
        MakeText(text, writer, number);
    }
    if (line.empty())
    {
        ++m_empty;
    }
    else if (*text != '\0' && line.substr(kPrefix.size() + static_cast<std::size_t>(textAt)) == text)
    {
        std::vector<bool>& found = m_found[writer];
        found.resize(std::max(found.size(), static_cast<std::size_t>(number) + 1));
        m_doubled += found[static_cast<std::size_t>(number)] ? 1 : 0;
        found[static_cast<std::size_t>(number)] = true;
        m_wrongThread += thread != gWriters.m_writers[writer].m_thread ? 1 : 0;
        ++m_whole;
    }
    else
    {
        ++m_torn;
        std::string_view rest = line;
        do
        {
            rest.remove_prefix(1);
        } while (!rest.empty() && !StartsEntry(rest));
        m_joined += rest.empty() ? 0 : 1;
    }
}

int Verdict::LostOf(const Writer& writer) const
{
    const auto found = m_found.find(static_cast<int>(&writer - gWriters.m_writers));
    if (found == m_found.end())
    {
        return writer.m_taken;
    }
    const auto end = found->second.begin() + std::min<std::ptrdiff_t>(writer.m_taken, std::ssize(found->second));
    return writer.m_taken - static_cast<int>(std::count(found->second.begin(), end, true));
}

int Verdict::Lost() const
{
    int lost = 0;
    for (int i = 0; i < gWriters.m_count; ++i)
    {
        const Writer& writer = gWriters.m_writers[i];
        lost += writer.m_mayLose ? 0 : LostOf(writer);
    }
    return lost;
}

bool Report(const std::string& name, const Verdict& verdict, bool isElseKept, const char* format, ...)
{
    const int lost = verdict.Lost();
    const bool isKept = isElseKept && verdict.IsWhole() && lost == 0;
    std::printf("%-50s %-6s ", name.c_str(), isKept ? "kept" : "BROKEN");
    va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    va_end(arguments);
    if (verdict.m_whole > 0 || lost > 0)
    {
        std::printf("; %d lines: %d lost, %d torn, %d joined, %d doubled, %d empty, %d with a wrong thread id",
                    verdict.m_whole, lost, verdict.m_torn + verdict.m_openEnds, verdict.m_joined, verdict.m_doubled,
                    verdict.m_empty, verdict.m_wrongThread);
    }
    std::puts("");
    std::fflush(stdout);
    return isKept;
}

RepeatedCalls::RepeatedCalls(const std::vector<void (*)()>& calls)
{
    for (void (*const call)() : calls)
    {
        m_threads.emplace_back(
            [this, call]
            {
                while (!m_stop)
                {
                    call();
                }
            });
    }
}

RepeatedCalls::~RepeatedCalls()
{
    m_stop = true;
    for (std::thread& thread : m_threads)
    {
        thread.join();
    }
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
