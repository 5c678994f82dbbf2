// Every system call of a log's life fails in turn, once and several times in a row, with every error that disks and tables
// of descriptors give. A line may be lost only when it was refused, or, after more than one failure, when its file was left
// while nothing could be written. Nothing is ever torn or doubled.
#include "Oracle.h"
#include "Subject.h"
#include "TrappedCalls.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr int kLines = 45;
constexpr std::size_t kMaxFileSize = 1500;

struct Life
{
    bool m_trapped;       // the filter is in force
    int m_calls;          // that were counted
    bool m_taken[kLines]; // what the subject said of each line
};

struct Fault
{
    int m_error;
    const char* m_name;
};

constexpr Fault kFaults[] = {
    {ENOSPC, "ENOSPC"}, {EIO, "EIO"},       {EMFILE, "EMFILE"}, {EINTR, "EINTR"},
    {EDQUOT, "EDQUOT"}, {EACCES, "EACCES"}, {EAGAIN, "EAGAIN"}, {TrappedCalls::kShortWrite, "short"}};

// A log's life: opened, filled over several flushes, closed, opened again, closed. Without standard input, so that the log's
// descriptor has to be moved.
void Live(const std::string& folder, bool rotating, const TrappedCalls::Plan& plan, Life& life)
{
    close(STDIN_FILENO);
    life.m_trapped = TrappedCalls::Install();
    Subject::Open(folder, rotating ? kMaxFileSize : 0);
    TrappedCalls::Arm(plan);
    for (int i = 0; i < kLines; ++i)
    {
        if (i == kLines / 2)
        {
            Subject::Close();
        }
        life.m_taken[i] = Subject::Log(LineText(0, i).c_str());
    }
    Subject::Close();
    life.m_calls = TrappedCalls::Disarm();
    Subject::Log(LineText(1, 0).c_str());
    Subject::Close();
}

struct Totals
{
    int m_cases = 0;
    int m_broken = 0;
    int m_crashed = 0;
    int m_torn = 0;
    int m_doubled = 0;
    int m_lost = 0;    // lines that were taken and are not there
    int m_refused = 0; // lines that were not taken
    int m_stuck = 0;   // nothing is written after the fault
};

bool RunCase(bool rotating, const TrappedCalls::Plan& plan, const char* errorName, Totals& totals)
{
    static Life& life = *static_cast<Life*>(SharedMemory(sizeof(Life)));
    life = {};
    const ScratchFolder folder;
    const int status = RunChild([&] { Live(folder.Path(), rotating, plan, life); });
    if (!life.m_trapped)
    {
        std::puts("no filter for system calls can be installed here: nothing was tested");
        std::exit(2);
    }
    const Verdict verdict = Judge(folder.Path());
    int lost = 0;
    for (int i = 0; i < kLines; ++i)
    {
        lost += life.m_taken[i] && !verdict.Has(0, i) ? 1 : 0;
        totals.m_refused += life.m_taken[i] ? 0 : 1;
    }
    ++totals.m_cases;
    totals.m_crashed += status != 0 ? 1 : 0;
    totals.m_torn += verdict.m_torn + verdict.m_openEnds;
    totals.m_doubled += verdict.m_doubled;
    totals.m_lost += lost;
    totals.m_stuck += verdict.Has(1, 0) ? 0 : 1;
    const bool kept = status == 0 && verdict.IsWhole() && verdict.Has(1, 0) && (lost == 0 || plan.m_count > 1);
    if (!kept)
    {
        ++totals.m_broken;
        if (Subject::kIsLibrary)
        {
            std::printf("  broken: %s, %s %d to %d fail with %s: status %x, %d lost, %d torn (%s), %d doubled%s\n",
                        rotating ? "rotating" : "appended", TrappedCalls::Name(plan.m_number), plan.m_first,
                        plan.m_first + plan.m_count - 1, errorName, static_cast<unsigned int>(status), lost,
                        verdict.m_torn + verdict.m_openEnds, verdict.m_firstTorn.c_str(), verdict.m_doubled,
                        verdict.Has(1, 0) ? "" : ", stuck");
        }
    }
    return plan.m_first < life.m_calls;
}

bool RunCall(bool rotating, const TrappedCalls::Trapped& call, int failures)
{
    Totals totals;
    for (const Fault& fault : kFaults)
    {
        const bool writes = call.m_number == SYS_write || call.m_number == SYS_writev;
        if (fault.m_error == TrappedCalls::kShortWrite && !writes)
        {
            continue;
        }
        for (int first = 0; RunCase(rotating, {first, failures, fault.m_error, call.m_number}, fault.m_name, totals);)
        {
            ++first;
        }
    }
    if (totals.m_cases <= static_cast<int>(std::size(kFaults)))
    {
        return true; // never called: each round found that at once
    }
    char name[64];
    std::snprintf(name, sizeof name, "%s, %s fails %dx", rotating ? "rotating" : "appended", call.m_name, failures);
    char figures[128];
    std::snprintf(figures, sizeof figures,
                  "%d cases, %d broken: %d crashed, %d torn, %d doubled, %d lost, %d stuck; %d refused", totals.m_cases,
                  totals.m_broken, totals.m_crashed, totals.m_torn, totals.m_doubled, totals.m_lost, totals.m_stuck,
                  totals.m_refused);
    return Report(name, totals.m_broken == 0, figures);
}

} // namespace

int main()
{
    bool good = true;
    for (const int failures : {1, 3})
    {
        for (const bool rotating : {false, true})
        {
            if (rotating && !Subject::kRotates)
            {
                continue;
            }
            for (int i = 0; i < TrappedCalls::kTrappedCount; ++i)
            {
                good = RunCall(rotating, TrappedCalls::kTrapped[i], failures) && good;
            }
        }
    }
    return good ? 0 : 1;
}
