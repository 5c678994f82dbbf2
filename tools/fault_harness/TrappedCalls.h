// Makes system calls of this process fail on the way to the kernel, whoever makes them: a filter sends the calls that log
// files need to a signal handler, which answers them itself or passes them on. Works for libraries that call the C library
// internally, where no symbol could be replaced, and needs no rights.
#ifndef FAULT_HARNESS_TRAPPEDCALLS_H
#define FAULT_HARNESS_TRAPPEDCALLS_H

namespace TrappedCalls
{

constexpr int kShortWrite = -1; // in place of an error: half of what is to be written is written

struct Plan
{
    int m_first;  // the trapped call that fails first, counted from 0
    int m_count;  // how many fail in a row
    int m_error;  // errno, or kShortWrite
    int m_number; // only calls of this number fail and are counted; -1: any
};

// For the rest of the process's life. Returns false when the system does not allow filters.
bool Install();

// From here on calls are counted and fail by the plan. One thread at a time.
void Arm(const Plan& plan);
int Disarm(); // returns how many calls were counted

const char* Name(int number);

struct Trapped
{
    int m_number;
    const char* m_name;
};
extern const Trapped kTrapped[];
extern const int kTrappedCount;

} // namespace TrappedCalls

#endif
