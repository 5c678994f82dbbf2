// Makes system calls of the library fail: stands in for the functions of the C library through which it makes them. Set
// while no other thread logs.
#ifndef TESTS_SUPPORT_FAULTS_H
#define TESTS_SUPPORT_FAULTS_H

#include <deque>

namespace Faults
{

// What becomes of one call: it fails with `m_error`, or it succeeds; a write then takes at most `m_bytes`.
struct WriteFault
{
    long m_bytes;
    int m_error;
};

inline std::deque<WriteFault> gWrites; // one for each of the next writes; those after them succeed
inline std::deque<int> gOpenErrors;    // one for each of the next files opened

// The same for calls of any other kind, or for these.
constexpr long kSearch = -2; // in place of a system call's number: directories are opened
inline long gCall = -1;      // the number of the system call; SYS_writev stands for all writes
inline std::deque<WriteFault> gCalls;

inline long gDiskSpace = -1;            // bytes that can be written until ENOSPC; below 0: any number
inline void (*gAfterWrite)() = nullptr; // called once, when the bytes are in the file and nobody has been told
inline int gSearches = 0;               // directories opened

} // namespace Faults

#endif
