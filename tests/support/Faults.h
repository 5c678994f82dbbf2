// Makes system calls of the library fail: stands in for the functions of the C library through which it makes them. Set
// while no other thread logs.
#ifndef TESTS_SUPPORT_FAULTS_H
#define TESTS_SUPPORT_FAULTS_H

#include <deque>
#include <sys/syscall.h>

namespace Faults
{

// What becomes of one call: it fails with `m_error`, or it succeeds; a write then takes at most `m_bytes`.
struct WriteFault
{
    long m_bytes;
    int m_error;
};

// One for each of the next system calls of one kind; those after them, and all others, succeed.
constexpr long kSearch = -2;    // in place of a system call's number: directories are opened
inline long gCall = SYS_writev; // the number of the system call; this one stands for all writes
inline std::deque<WriteFault> gCalls;

inline void (*gAfterWrite)() = nullptr; // called once, when the bytes are in the file and nobody has been told

} // namespace Faults

#endif
