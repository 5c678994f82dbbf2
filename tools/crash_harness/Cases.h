// The ways in which the host faults.
#ifndef CRASH_HARNESS_CASES_H
#define CRASH_HARNESS_CASES_H

#include <cstdint>

namespace Cases
{

constexpr int kExitStatus = 42; // of a host that got to the end of its dump

enum class AfterDump
{
    LEAVE_AT_ONCE, // _exit
    EXIT,
    DIE_AFTER_FIRST, // killed between the two dumps
};

// Set by the case that runs.
extern AfterDump gAfterDump;
extern std::uint64_t gExpectedDumps;
extern thread_local bool tStopsOnFault; // this thread plays the owner of a lock that never leaves

// The case of that name; null when there is none.
using Run = void (*)();
Run Find(const char* name);

} // namespace Cases

#endif
