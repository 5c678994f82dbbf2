// Dies of a write to address 16 and leaves a dump on standard output and in crash.log: CrashHost [PLUGIN]. Built by
// SymbolizeDumpTest.py in several ways.
#include <ErrorHandlerDll/CrashHandler.h>

namespace
{

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
    InstallCrashHandlers();
    void* const entry = argc > 1 ? dlsym(dlopen(argv[1], RTLD_NOW), "PluginEntry") : nullptr;
    NeverReturns(entry != nullptr ? reinterpret_cast<Write>(entry) : WriteInHost, reinterpret_cast<int*>(16UL));
}
