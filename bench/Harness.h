// Measures what subjects cost in the same scenario. All subjects of a scenario run in turn within each repetition, so that a
// change in the machine's pace meets them alike, and each figure is kept as the median and the best of the repetitions.
#ifndef BENCH_HARNESS_H
#define BENCH_HARNESS_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// One subject in one scenario. Only `run` is measured.
struct Case
{
    std::string subject;
    std::function<void()> prepare;
    std::function<void(unsigned count)> run;
    std::function<void()> finish;
};

// Runs every case `repetitions` times, `count` operations each, and prints the figures for one operation.
void Measure(const std::string& scenario, const std::vector<Case>& cases, unsigned count, unsigned repetitions);

// Prints the percentiles of single calls.
void PrintLatencies(const std::string& scenario, const std::string& subject, std::vector<std::uint32_t>& ticks);

// Prints one result: scenario, subject, metric and value with tabs between, for the report to collect.
void PrintResult(const std::string& scenario, const std::string& subject, const std::string& metric, double value);

// A thread that sleeps until the end of the process: with it the C library's locks are real ones.
void ParkSecondThread();

// Heap allocations of the calling thread so far.
std::uint64_t AllocationCount();

// Keeps the compiler from dropping the computation of `value`.
template <class T>
void Keep(const T& value)
{
    asm volatile("" : : "g"(&value) : "memory");
}

#endif
