// Dies of a write to address 16 and leaves a dump on standard output and in crash.log: CrashHost [PLUGIN]. Built by
// SymbolizeDumpTest.py in several ways.
#include <ErrorHandlerDll/ErrorHandlerDll.h>
#include <ErrorHandlerDll/LinuxStructuredException.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>

namespace
{

void HandleSignal(int signal, siginfo_t* info, void* context)
{
    const StructuredException exception(signal, static_cast<ucontext_t*>(context), info);
    std::fflush(stdout);
    ShutdownLogging();
    std::_Exit(3);
}

using Write = void (*)(int*);

// The fault is the function's first instruction: one byte before it lies another function.
[[gnu::noinline]] void WriteInHost(int* target)
{
    *target = 1; // HOST FAULT
}

// The call is the function's last instruction: its return address lies in the next function.
[[gnu::noinline, noreturn]] void NeverReturns(Write write, int* target)
{
    write(target); // HOST CALL
    __builtin_unreachable();
}

} // namespace

int main(int argc, char** argv)
{
    InitialiseLogging(true, 5, ZR_LOG_ALL_CATEGORIES, "crash.log");
    struct sigaction action = {};
    action.sa_sigaction = HandleSignal;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGSEGV, &action, nullptr);

    Write write = WriteInHost;
    if (argc > 1)
    {
        void* const plugin = dlopen(argv[1], RTLD_NOW);
        write = reinterpret_cast<Write>(dlsym(plugin, "PluginEntry"));
    }
    NeverReturns(write, reinterpret_cast<int*>(std::uintptr_t{16}));
}
