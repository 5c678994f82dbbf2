// Fatal signals: the dump is written, then the process dies of the signal, as it would have without a handler.
#pragma once

#include <cstddef>
#include <memory>
#include <signal.h>

namespace CrashHandler
{

// Handles SIGSEGV, SIGBUS, SIGFPE and SIGILL of all threads. Once, before other threads start.
void Install();

// A stack for the signal handlers of the calling thread, while the object lives: after a stack overflow there is no other
// to run on. Without memory for it the thread's own stack has to do.
class AlternateStack
{
public:
    AlternateStack();
    ~AlternateStack();
    AlternateStack(const AlternateStack&) = delete;
    AlternateStack& operator=(const AlternateStack&) = delete;

private:
    static constexpr std::size_t kBytes = 256 * 1024; // the dump formats its lines on the stack

    std::unique_ptr<char[]> m_memory;
    stack_t m_previous = {};
};

// Writes through a bad pointer, to show what a dump looks like.
void RunIntoFault();

} // namespace CrashHandler
