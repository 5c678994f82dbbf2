// Makes system calls of the library fail. Needs the linker option in tests/CMakeLists.txt. Set while no other thread logs.
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

} // namespace Faults

#endif
