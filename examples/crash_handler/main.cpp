// Handlers for fatal signals: they run on a stack of their own, so a stack that has run full does not stop them, leave the
// dump in crash_handler.log and on standard output, and then let the process die of the signal as it would have without
// them: the exit status, the core file and whoever waits for the process see the truth.
#include <ErrorHandlerDll/ErrorHandlerDll.h>
#include <ErrorHandlerDll/LinuxStructuredException.h>

#include <csignal>
#include <cstdio>
#include <sys/mman.h>

namespace
{

constexpr int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE};

// The dump formats text and walks the stack; what SIGSTKSZ gives is too tight for that.
constexpr std::size_t kSignalStackSize = 256 * 1024;

void HandleFatalSignal(int signal, siginfo_t* info, void* context)
{
    // All of it is in the log and printed when the constructor returns. Nothing is flushed or shut down behind it: that
    // would wait for whoever holds the log or the stream.
    const StructuredException exception(signal, static_cast<ucontext_t*>(context), info);
    std::signal(signal, SIG_DFL);
    raise(signal);
}

// The alternate stack belongs to one thread: every thread of a host calls this when it starts.
bool UseSignalStack()
{
    void* const memory = mmap(nullptr, kSignalStackSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
    {
        return false;
    }
    stack_t stack = {};
    stack.ss_sp = memory;
    stack.ss_size = kSignalStackSize;
    return sigaltstack(&stack, nullptr) == 0;
}

bool InstallHandlers()
{
    struct sigaction action = {};
    action.sa_sigaction = HandleFatalSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER; // a fault within the dump goes back to the dump
    sigemptyset(&action.sa_mask);
    for (const int fatal : kFatalSignals)
    {
        if (sigaction(fatal, &action, nullptr) != 0)
        {
            return false;
        }
    }
    return true;
}

// Never ends: the stack runs full. The volatile array keeps the calls from becoming a loop.
int Overflow(int depth)
{
    volatile char frame[1024] = {};
    frame[0] = static_cast<char>(depth);
    return depth < 0 ? depth : Overflow(depth + 1) + frame[0];
}

} // namespace

int main(int argc, char**)
{
    InitialiseLogging(true, ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, "crash_handler.log");
    if (!UseSignalStack() || !InstallHandlers())
    {
        return 1;
    }
    if (argc > 1) // any argument: a full stack
    {
        return Overflow(0);
    }
    // A page that nobody may touch: a bad pointer that compiler and checkers cannot see through.
    void* const page = mmap(nullptr, 1, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    *static_cast<volatile int*>(page) = 1;
    return 1;
}
