// Numbered files of any configured name, among any other files: the log goes on with the highest number, and moves to the
// next one. Where the number stands is seen from the names of the first two files.
#include "FuzzLog.h"

#include <climits>
#include <fstream>

namespace
{

constexpr std::size_t kLongestName = 200; // leaves room for a number
constexpr unsigned int kLargeFile = 1 << 30;

std::string FileName(FuzzedDataProvider& data)
{
    std::string name = FuzzText(data, kLongestName);
    std::replace(name.begin(), name.end(), '/', '.');
    return name == "." || name == ".." || name.empty() ? "log" : name;
}

std::string LogLine(const std::string& path, unsigned int limit)
{
    return LogInto(path, LOGGING_STRATEGY_FILE_SIZE, limit, [] { return LogMessage(0, 1, "", "line"); });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* input, std::size_t size)
{
    static const TemporaryFolder folder("/dev/shm");
    FuzzedDataProvider data(input, size);
    const std::string name = FileName(data);
    const int number = data.ConsumeIntegralInRange(1, INT_MAX - 2);
    folder.Empty();
    std::filesystem::create_directories(folder / "logs.1");
    const std::string path = folder / "logs.1/" + name;
    const std::string first = LogLine(path, kLargeFile);
    const std::string second = LogLine(path, 1);
    const std::size_t at =
        static_cast<std::size_t>(std::mismatch(first.begin(), first.end(), second.begin()).first - first.begin());
    const auto nameOf = [&](long long n)
    {
        return first.substr(0, at) + std::to_string(n) + first.substr(at + 1);
    };
    FuzzCheck(first == nameOf(1) && second == nameOf(2), "the first files have the numbers 1 and 2");

    std::ofstream(nameOf(number)).put('\n');
    for (int others = data.ConsumeIntegralInRange(0, 6); others > 0; --others)
    {
        std::ofstream(folder / "logs.1/" + FileName(data)).put('\n');
    }
    const std::string found = LogLine(path, kLargeFile);
    const long long highest = std::atoll(found.c_str() + at);
    FuzzCheck(found == nameOf(highest) && highest >= std::max(number, 2), "the highest number is found");
    FuzzCheck(LogLine(path, kLargeFile) == found, "and found again");
    const std::string next = LogLine(path, 1);
    FuzzCheck(next == nameOf(highest + 1), "the next number follows");
    FuzzCheck(highest > INT_MAX - 2 || LogLine(next, kLargeFile) == next, "any name of the series leads to it");
    return 0;
}
