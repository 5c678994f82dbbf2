// Makes system calls of the library fail: stands in for the functions of the C library through which it makes them. Set
// while no other thread logs.
#ifndef TESTS_SUPPORT_FAULTS_H
#define TESTS_SUPPORT_FAULTS_H

#include <deque>

namespace Faults
{

// What becomes of one write(2): at most `m_bytes` are written, or it fails with `m_error`.
struct WriteFault
{
    long m_bytes;
    int m_error;
};

inline std::deque<WriteFault> gWrites;  // one for each of the next writes; those after them succeed
inline std::deque<int> gOpenErrors;     // one for each of the next files opened
inline long gDiskSpace = -1;            // bytes that can be written until ENOSPC; below 0: any number
inline void (*gAfterWrite)() = nullptr; // called once, when the bytes are in the file and nobody has been told
inline int gSearches = 0;               // directories opened

constexpr int kShortWrite = -1;   // in place of an error: half of the bytes are written
constexpr int kHalfThenFull = -2; // half of them, and then there is no room

// Some calls in a row of one kind fail.
struct Plan
{
    long m_number; // the system call; below 0: none
    int m_first;   // the call that fails first, counted from 0
    int m_count;
    int m_error;
};
inline Plan gPlan = {-1, 0, 0, 0};
inline int gPlannedCalls = 0; // calls of that kind so far

} // namespace Faults

#endif
