// Handlers for fatal signals: they leave the dump in crash_handler.log and on standard output, also when the stack has run
// full, and then the process dies of the signal as it would have without them: the exit status, the core file and whoever
// waits for the process see the truth.
#include <ErrorHandlerDll/CrashHandler.h>
#include <ErrorHandlerDll/ErrorHandlerDll.h>

#include <sys/mman.h>

namespace
{

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
    InstallTerminateHandler();
    const CrashHandlerStack stack; // one for each thread
    if (!InstallCrashHandlers() || !stack.IsInPlace())
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
