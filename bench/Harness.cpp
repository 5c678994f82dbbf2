#include "bench/Harness.h"

#include "support/Allocations.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <linux/perf_event.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <x86intrin.h>

namespace
{

std::uint64_t ReadClock(clockid_t clock)
{
    timespec now = {};
    clock_gettime(clock, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000u + static_cast<std::uint64_t>(now.tv_nsec);
}

// User-space instructions of this thread and of those that it starts. Where the system does not allow the counter, Read
// gives 0 and the report has no such figure.
class InstructionCounter
{
public:
    InstructionCounter()
    {
        perf_event_attr attributes = {};
        attributes.type = PERF_TYPE_HARDWARE;
        attributes.size = sizeof attributes;
        attributes.config = PERF_COUNT_HW_INSTRUCTIONS;
        attributes.inherit = 1;
        attributes.exclude_kernel = 1;
        attributes.exclude_hv = 1;
        m_descriptor = static_cast<int>(syscall(SYS_perf_event_open, &attributes, 0, -1, -1, 0));
    }
    std::uint64_t Read() const
    {
        std::uint64_t count = 0;
        return m_descriptor >= 0 && read(m_descriptor, &count, sizeof count) == sizeof count ? count : 0;
    }

private:
    int m_descriptor;
};

struct Reading
{
    std::uint64_t wall, cpu, instructions, allocations;
};

struct Samples
{
    std::vector<double> wall, cpu, instructions, allocations;
};

double Median(std::vector<double>& values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

// The processor time is that of the whole process, so a subject's threads in the background count.
Reading Read(const InstructionCounter& instructions)
{
    return {ReadClock(CLOCK_MONOTONIC), ReadClock(CLOCK_PROCESS_CPUTIME_ID), instructions.Read(), AllocationCount()};
}

void Add(Samples& samples, const Reading& before, const Reading& after, unsigned count)
{
    samples.wall.push_back(static_cast<double>(after.wall - before.wall) / count);
    samples.cpu.push_back(static_cast<double>(after.cpu - before.cpu) / count);
    samples.instructions.push_back(static_cast<double>(after.instructions - before.instructions) / count);
    samples.allocations.push_back(static_cast<double>(after.allocations - before.allocations) / count);
}

double TicksPerNanosecond()
{
    const std::uint64_t start = ReadClock(CLOCK_MONOTONIC);
    const std::uint64_t ticks = __rdtsc();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return static_cast<double>(__rdtsc() - ticks) / static_cast<double>(ReadClock(CLOCK_MONOTONIC) - start);
}

} // namespace

void Measure(const std::string& scenario, const std::vector<Case>& cases, unsigned count, unsigned repetitions)
{
    static const InstructionCounter counter;
    std::vector<Samples> all(cases.size());
    for (unsigned repetition = 0; repetition < repetitions; ++repetition)
    {
        for (std::size_t i = 0; i < cases.size(); ++i)
        {
            const std::size_t turn = (i + repetition) % cases.size(); // nobody always comes behind the same neighbour
            cases[turn].prepare();
            const Reading before = Read(counter);
            cases[turn].run(count);
            const Reading after = Read(counter);
            cases[turn].finish();
            Add(all[turn], before, after, count);
        }
    }
    for (std::size_t i = 0; i < cases.size(); ++i)
    {
        PrintResult(scenario, cases[i].subject, "ns", Median(all[i].wall));
        PrintResult(scenario, cases[i].subject, "best ns", *std::min_element(all[i].wall.begin(), all[i].wall.end()));
        PrintResult(scenario, cases[i].subject, "cpu ns", Median(all[i].cpu));
        if (const double instructions = Median(all[i].instructions); instructions > 0)
        {
            PrintResult(scenario, cases[i].subject, "instructions", instructions);
        }
        PrintResult(scenario, cases[i].subject, "allocations", Median(all[i].allocations));
    }
}

void PrintLatencies(const std::string& scenario, const std::string& subject, std::vector<std::uint32_t>& ticks)
{
    static const double ticksPerNanosecond = TicksPerNanosecond();
    std::sort(ticks.begin(), ticks.end());
    const auto print = [&](const char* metric, double share)
    {
        const auto index = static_cast<std::size_t>(share * static_cast<double>(ticks.size() - 1));
        PrintResult(scenario, subject, metric, ticks[index] / ticksPerNanosecond);
    };
    print("p50", 0.5);
    print("p99", 0.99);
    print("p99.9", 0.999);
    print("max", 1);
}

void PrintResult(const std::string& scenario, const std::string& subject, const std::string& metric, double value)
{
    std::printf("%s\t%s\t%s\t%.4g\n", scenario.c_str(), subject.c_str(), metric.c_str(), value);
    std::fflush(stdout);
}

std::uint64_t AllocationCount()
{
    return static_cast<std::uint64_t>(Allocations::tCount);
}

void ParkSecondThread()
{
    std::thread(
        []
        {
            for (;;)
            {
                pause();
            }
        })
        .detach();
}
