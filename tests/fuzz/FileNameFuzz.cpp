// Names of numbered files, and the search for them, on any configured name and any contents of the folder. Search and build
// must agree: what was built is found, and read back as the number that was built.
#include "ErrorHandlerDll/logging/FileDependentLoggerStrategy.h"
#include "ErrorHandlerDll/logging/FileSizeLoggerStrategy.h"
#include "FuzzLog.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <fuzzer/FuzzedDataProvider.h>
#include <string_view>
#include <vector>

namespace
{

constexpr std::size_t kLongestName = 200; // leaves room for a number
constexpr std::size_t kMostEntries = 6;

struct Search : FileSizeLoggerStrategy
{
    Search() : FileSizeLoggerStrategy(nullptr, 0) {}
    using FileDependentLoggerStrategy::GetFileSearchMask;
};

std::string Component(std::string_view path)
{
    const std::size_t slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

// Row by row: which prefixes of the name the mask so far matches. Trying the stars one by one takes for ever on a name of
// many.
bool Matches(std::string_view mask, std::string_view name)
{
    std::vector<bool> matched(name.size() + 1);
    matched[0] = true;
    for (const char wanted : mask)
    {
        std::vector<bool> next(name.size() + 1);
        next[0] = wanted == '*' && matched[0];
        for (std::size_t i = 1; i <= name.size(); ++i)
        {
            next[i] = wanted == '*' ? next[i - 1] || matched[i] : matched[i - 1] && name[i - 1] == wanted;
        }
        matched = next;
    }
    return matched.back();
}

// The number of a file name, plainly: between the last two dots, blanks and one sign before decimal digits.
long long PlainNumber(std::string name)
{
    const std::size_t backslash = name.rfind('\\');
    name = backslash == std::string::npos ? name : name.substr(backslash + 1);
    const std::size_t last = name.rfind('.');
    std::string part = name;
    if (last == 0)
    {
        part = name.substr(1);
    }
    else if (last != std::string::npos)
    {
        const std::size_t before = name.rfind('.', last - 1);
        const std::size_t start = before == std::string::npos ? 0 : before + 1;
        part = name.substr(start, last - start);
    }
    const std::size_t start = part.find_first_not_of(' ');
    if (start == std::string::npos)
    {
        return -1;
    }
    part.erase(0, start);
    const bool isSigned = part[0] == '+' || part[0] == '-';
    const std::string digits = part.substr(isSigned ? 1 : 0);
    if (!std::all_of(digits.begin(), digits.end(), [](unsigned char c) { return std::isdigit(c) != 0; }))
    {
        return -1;
    }
    const long long value = std::strtoll(digits.c_str(), nullptr, 10);
    return part[0] == '-' ? -value : value;
}

std::string FileName(FuzzedDataProvider& data)
{
    std::string name = data.ConsumeRandomLengthString(kLongestName);
    std::replace(name.begin(), name.end(), '\0', '0');
    std::replace(name.begin(), name.end(), '/', '.');
    return name;
}

bool IsUsable(const std::string& name)
{
    return !name.empty() && name != "." && name != "..";
}

void CheckPair(const std::string& path, int number)
{
    const Search search;
    const LogPath built = FileSizeLoggerStrategy::BuildLogFileName(path, number);
    const LogPath next = FileSizeLoggerStrategy::BuildLogFileName(built, number + 1);
    const std::string entry = Component(built.GetData());
    const std::string nextEntry = Component(next.GetData());
    FUZZ_CHECK(FileSizeLoggerStrategy::GetFileIDFromFileName(entry) == number);
    FUZZ_CHECK(FileSizeLoggerStrategy::GetFileIDFromFileName(nextEntry) == number + 1);
    FUZZ_CHECK(entry != nextEntry);
    for (const LogPath& name : {LogPath{path}, built, next})
    {
        const std::string mask = Component(Search::GetFileSearchMask(name, ".*").GetData());
        FUZZ_CHECK(Matches(mask, entry));
        FUZZ_CHECK(Matches(mask, nextEntry));
    }
    const std::size_t folder = path.size() - Component(path).size();
    FUZZ_CHECK(path.substr(0, folder) == std::string(built.GetData()).substr(0, folder));
}

std::string LogOnce(const std::string& path, unsigned int limit)
{
    SetStrategy(LOGGING_STRATEGY_FILE_SIZE, limit);
    InitialiseLogging(true, ZR_LOG_DEBUG_HIGH, 1, path.c_str());
    FUZZ_CHECK(LogMessage(0, 1, "", "line"));
    return GetLogFilename();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size)
{
    static const FuzzFolder folder;
    FuzzedDataProvider data(bytes, size);
    const std::string name = FileName(data);
    const int number = data.ConsumeIntegralInRange(1, INT_MAX - 2);
    if (!IsUsable(name))
    {
        return 0;
    }
    CheckPair(name, number);
    CheckPair("logs.1/v.2/" + name, number);

    // A folder with anything in it: the log goes on with the highest number of its series.
    folder.Empty();
    const std::string mask = Component(Search::GetFileSearchMask(name, ".*").GetData());
    long long highest = 1;
    for (std::size_t i = 0; i < kMostEntries; ++i)
    {
        std::string entry = FileName(data);
        if (data.ConsumeBool()) // one of the series
        {
            entry = Component(FileSizeLoggerStrategy::BuildLogFileName(name, data.ConsumeIntegral<int>()).GetData());
        }
        if (IsUsable(entry) && std::ofstream(folder / entry).good() && Matches(mask, entry))
        {
            const long long found = PlainNumber(entry);
            highest = found < INT_MAX ? std::max(highest, found) : highest;
        }
    }
    const std::string path = folder / name;
    const std::string first = LogOnce(path, 1 << 30);
    FUZZ_CHECK(PlainNumber(Component(first)) == highest);
    FUZZ_CHECK(LogOnce(path, 1 << 30) == first);
    const std::string moved = LogOnce(path, 1);
    if (highest < INT_MAX - 2) // numbers from INT_MAX on are not found again
    {
        FUZZ_CHECK(PlainNumber(Component(moved)) == highest + 1);
        FUZZ_CHECK(LogOnce(moved, 1 << 30) == moved);
    }
    ShutdownLogging();
    return 0;
}
