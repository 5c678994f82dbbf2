// faults SCALE [CASE...]: runs the cases, or all. SCALE is 1 for the short form and 10 for the figures of
// docs/reliability.md. Logs are written below TMPDIR, or else in /dev/shm.
#include "harness/faults/Oracle.h"

#include <cstdio>
#include <cstdlib>

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
constexpr unsigned int kTimeoutSeconds = 60; // of a case in its short form

} // namespace

int main(int count, char** arguments)
{
    const int scale = count > 1 ? std::atoi(arguments[1]) : 0;
    if (scale < 1)
    {
        std::puts("usage: faults SCALE [CASE...]");
        return 2;
    }
    setenv("TMPDIR", "/dev/shm", 0);
    std::vector<std::string> names(arguments + 2, arguments + count);
    for (const auto& row : kCases)
    {
        if (std::erase(names, row.m_name) > 0 || count == 2)
        {
            const auto run = [&]
            {
                row.m_run(scale);
                std::exit(0); // as a host ends, with what a sanitizer has to say then
            };
            if (!IsGoodEnd(StartChild(run, kTimeoutSeconds * static_cast<unsigned int>(scale))))
            {
                Report(row.m_name, Verdict(), false, "hung or crashed");
            }
        }
    }
    for (const std::string& name : names)
    {
        Report(name, Verdict(), false, "there is no such case");
    }
    return IsAllKept() ? 0 : 1;
}
