#include "Oracle.h"

#include "Subject.h"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr int kPaddings = 61;

void JudgeLine(const std::string& line, Verdict& verdict, std::map<std::pair<int, int>, int>& seen)
{
    int writer = 0;
    int number = 0;
    const std::size_t prefix = Subject::PrefixLength(line);
    if (prefix != std::string::npos && std::sscanf(line.c_str() + prefix, "<%d %d", &writer, &number) == 2 &&
        line.compare(prefix, std::string::npos, LineText(writer, number)) == 0)
    {
        ++verdict.m_lines;
        verdict.m_doubled += seen[{writer, number}]++ > 0 ? 1 : 0;
        verdict.m_numbers[writer].push_back(number);
        verdict.m_prefixes[writer].push_back(line.substr(0, prefix));
    }
    else if (line.empty())
    {
        ++verdict.m_empty;
    }
    else if (!Subject::IsOwnLine(line))
    {
        if (verdict.m_torn++ == 0)
        {
            verdict.m_firstTorn = line;
        }
        for (std::size_t at = 1; at < line.size(); ++at)
        {
            if (Subject::PrefixLength(std::string_view(line).substr(at)) != std::string_view::npos)
            {
                ++verdict.m_joined;
                break;
            }
        }
    }
}

} // namespace

std::size_t MatchForm(std::string_view line, std::string_view form)
{
    constexpr std::size_t kLevelWidth = 10;
    std::size_t at = 0;
    for (const char kind : form)
    {
        const std::size_t start = at;
        if (kind == '#')
        {
            while (at < line.size() && std::isdigit(static_cast<unsigned char>(line[at])) != 0)
            {
                ++at;
            }
        }
        else if (kind == '*')
        {
            at += kLevelWidth;
        }
        else if (at < line.size() &&
                 (kind == '0' ? std::isdigit(static_cast<unsigned char>(line[at])) != 0 : line[at] == kind))
        {
            ++at;
        }
        if (at == start || at > line.size())
        {
            return std::string_view::npos;
        }
    }
    return at;
}

std::string LineText(int writer, int number)
{
    char head[32];
    std::snprintf(head, sizeof head, "<%d %d ", writer, number);
    return head + std::string(static_cast<std::size_t>(number % kPaddings), 'x') + '>';
}

bool Verdict::Has(int writer, int number) const
{
    const auto numbers = m_numbers.find(writer);
    return numbers != m_numbers.end() &&
           std::find(numbers->second.begin(), numbers->second.end(), number) != numbers->second.end();
}

int Verdict::Lost(int writer, int count) const
{
    const auto numbers = m_numbers.find(writer);
    if (numbers == m_numbers.end())
    {
        return count;
    }
    std::vector<bool> found(static_cast<std::size_t>(count));
    for (const int number : numbers->second)
    {
        if (number >= 0 && number < count)
        {
            found[static_cast<std::size_t>(number)] = true;
        }
    }
    return static_cast<int>(std::count(found.begin(), found.end(), false));
}

Verdict Judge(const std::filesystem::path& folder)
{
    Verdict verdict;
    std::map<std::pair<int, int>, int> seen;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
    {
        if (!entry.is_regular_file())
        {
            continue;
        }
        std::ostringstream bytes;
        bytes << std::ifstream(entry.path(), std::ios::binary).rdbuf();
        std::istringstream lines(bytes.str());
        for (std::string line; std::getline(lines, line);)
        {
            if (lines.eof())
            {
                ++verdict.m_openEnds;
            }
            else
            {
                JudgeLine(line, verdict, seen);
            }
        }
    }
    return verdict;
}

ScratchFolder::ScratchFolder()
{
    const char* const chosen = std::getenv("FAULTS_FOLDER");
    std::string name = std::string(chosen != nullptr ? chosen : "/dev/shm") + "/faults.XXXXXX";
    if (mkdtemp(name.data()) == nullptr)
    {
        std::perror("mkdtemp");
        std::abort();
    }
    m_path = name;
}

ScratchFolder::~ScratchFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

void* SharedMemory(std::size_t size)
{
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
    {
        std::perror("mmap");
        std::abort();
    }
    return memory;
}

int RunChild(const std::function<void()>& body, unsigned int timeoutSeconds)
{
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0)
    {
        alarm(timeoutSeconds);
        body();
        _exit(0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

std::string Figures(const char* format, ...)
{
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

bool Report(const std::string& name, bool kept, const std::string& figures)
{
    const char* const result = kept ? "kept" : Subject::kIsLibrary ? "BROKEN" : "not kept";
    std::printf("%-8s %-44s %-8s  %s\n", Subject::kName, name.c_str(), result, figures.c_str());
    std::fflush(stdout);
    return kept || !Subject::kIsLibrary;
}
