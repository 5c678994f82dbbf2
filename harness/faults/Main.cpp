// faults [SCALE] [CASE...]: runs the cases, or all. SCALE is 1 for the short form (the default) and 10 for the figures of
// docs/reliability.md. Logs are written below TMPDIR, or else in /dev/shm.
#include "harness/faults/Oracle.h"

#include <cctype>
#include <cstdlib>

namespace
{

constexpr struct
{
    const char* m_name;
    bool (*m_run)(int scale);
} kCases[] = {{"calls", FailCalls},   {"memory", FailMemory}, {"forks", Fork},          {"kills", Kill},
              {"signals", Interrupt}, {"ends", EndProcess},   {"threads", EndThreads},  {"races", Race},
              {"sharing", ShareFile}, {"disk", FillDisk},     {"limit", LimitFileSize}, {"changes", ChangeFiles},
              {"rotation", Rotate},   {"unloading", Unload}};
constexpr unsigned int kTimeoutSeconds = 60; // of a case in its short form

} // namespace

int main(int count, char** arguments)
{
    setenv("TMPDIR", "/dev/shm", 0);
    std::vector<std::string> names(arguments + 1, arguments + count);
    int scale = 1;
    if (!names.empty() && std::isdigit(names[0][0]) != 0)
    {
        scale = std::atoi(names[0].c_str());
        names.erase(names.begin());
    }
    const bool runsAll = names.empty();
    const auto run = [&](const auto& row)
    {
        return (std::erase(names, row.m_name) == 0 && !runsAll) ||
               IsGoodEnd(StartChild([&] { std::exit(row.m_run(scale) ? 0 : 1); },
                                    kTimeoutSeconds * static_cast<unsigned int>(scale))) ||
               Report(row.m_name, Verdict(), false, "a row is broken, or the case was ended by a signal");
    };
    bool isGood = RunAll(kCases, run);
    for (const std::string& name : names)
    {
        isGood = Report(name, Verdict(), false, "there is no such case");
    }
    return isGood ? 0 : 1;
}
