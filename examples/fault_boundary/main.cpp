// A host that outlives the faults of a plug-in: each becomes one reported error at the boundary, with its dump in
// fault_boundary.log, and the next document is served. docs/crash-handlers.md says when that is sound.
//
//   fault_boundary PLUGIN
#include <ErrorHandlerDll/ErrorHandlerDll.h>
#include <ErrorHandlerDll/ExceptionHandler.h>
#include <ErrorHandlerDll/LinuxStructuredException.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <dlfcn.h>
#include <fstream>
#include <link.h>
#include <string>
#include <sys/mman.h>

namespace
{

constexpr std::size_t kSignalStackSize = 64 * 1024;

using CountRowsFunction = int (*)(const char*);

// The plug-in and where its code lies: a fault in a function that it calls, such as malloc, may leave something locked.
struct Plugin
{
    CountRowsFunction countRows = nullptr;
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
};

Plugin gPlugin;
thread_local volatile bool tIsInPlugin;

bool IsPluginCode(std::uintptr_t address)
{
    return address >= gPlugin.begin && address < gPlugin.end;
}

int FindPluginCode(dl_phdr_info* object, std::size_t, void* function)
{
    const auto wanted = reinterpret_cast<std::uintptr_t>(function);
    for (int i = 0; i < object->dlpi_phnum; ++i)
    {
        const ElfW(Phdr)& segment = object->dlpi_phdr[i];
        const std::uintptr_t begin = object->dlpi_addr + segment.p_vaddr;
        if (segment.p_type == PT_LOAD && wanted >= begin && wanted < begin + segment.p_memsz)
        {
            gPlugin.begin = begin;
            gPlugin.end = begin + segment.p_memsz;
            return 1;
        }
    }
    return 0;
}

bool LoadPlugin(const char* path)
{
    void* const plugin = dlopen(path, RTLD_NOW);
    void* const function = plugin == nullptr ? nullptr : dlsym(plugin, "CountRows");
    gPlugin.countRows = reinterpret_cast<CountRowsFunction>(function);
    return function != nullptr && dl_iterate_phdr(FindPluginCode, function) == 1;
}

// Throws to the boundary when the plug-in's own code has faulted, and lets the process die otherwise.
void HandleFault(int signal, siginfo_t* info, void* context)
{
    auto* const interrupted = static_cast<ucontext_t*>(context);
    const StructuredException exception(signal, interrupted, info); // writes the dump
    const bool isFault = info->si_code > 0;                         // not sent by somebody
    if (isFault && tIsInPlugin && IsPluginCode(static_cast<std::uintptr_t>(interrupted->uc_mcontext.gregs[REG_RIP])))
    {
        throw StructuredException(exception);
    }
    std::signal(signal, SIG_DFL);
    raise(signal);
}

// Every thread that calls the plug-in does this first.
bool UseSignalStack()
{
    void* const memory = mmap(nullptr, kSignalStackSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    stack_t stack = {};
    stack.ss_sp = memory;
    stack.ss_size = kSignalStackSize;
    return memory != MAP_FAILED && sigaltstack(&stack, nullptr) == 0;
}

bool InstallHandlers()
{
    struct sigaction action = {};
    action.sa_sigaction = HandleFault;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER; // no signal stays blocked when the handler is left by a throw
    for (const int signal : {SIGSEGV, SIGBUS, SIGILL, SIGFPE})
    {
        if (sigaction(signal, &action, nullptr) != 0)
        {
            return false;
        }
    }
    return true;
}

class PluginCall
{
public:
    PluginCall() { tIsInPlugin = true; }
    ~PluginCall() { tIsInPlugin = false; }
    PluginCall(const PluginCall&) = delete;
    PluginCall& operator=(const PluginCall&) = delete;
};

// The boundary: what the host's callers see.
ZelvoReaderErrorCode CountRows(const char* document, int* rows)
{
    try
    {
        const PluginCall call;
        *rows = gPlugin.countRows(document);
        return ZR_ERROR_NONE;
    }
    catch (StructuredException& exception)
    {
        ExceptionHandler::HandleStructuredException("CountRows() - ", exception, false);
        return ZR_ERROR_SYSTEM; // the exception's own code is a signal's, not one of the catalogue
    }
}

void ReportError(ZelvoReaderErrorCode, char* message, void* param)
{
    std::printf("reported: %s\n", message);
    ++*static_cast<int*>(param);
}

// A dump is written where the fault happens, and once more at the boundary.
int CountDumps()
{
    std::ifstream log("fault_boundary.log");
    int count = 0;
    for (std::string line; std::getline(log, line);)
    {
        count += line.find("  Call stack:") != std::string::npos ? 1 : 0;
    }
    return count;
}

} // namespace

int main(int argc, char** argv)
{
    InitialiseLogging(true, ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, "fault_boundary.log");
    int reported = 0;
    ExceptionHandler::SetErrorCallback(ReportError, &reported);
    if (argc != 2 || !LoadPlugin(argv[1]) || !UseSignalStack() || !InstallHandlers())
    {
        return 1;
    }

    const struct
    {
        const char* document;
        ZelvoReaderErrorCode result;
        int rows;
    } documents[] = {
        {"12,3", ZR_ERROR_NONE, 4}, {"12", ZR_ERROR_SYSTEM, 0},   // reads behind a null pointer
        {"20,4", ZR_ERROR_NONE, 5}, {"12,0", ZR_ERROR_SYSTEM, 0}, // divides by zero
        {"7", ZR_ERROR_SYSTEM, 0},  {"9,3", ZR_ERROR_NONE, 3},
    };
    bool asExpected = true;
    int faults = 0;
    for (const auto& each : documents)
    {
        int rows = 0;
        const ZelvoReaderErrorCode result = CountRows(each.document, &rows);
        faults += result == ZR_ERROR_SYSTEM ? 1 : 0;
        asExpected = asExpected && result == each.result && rows == each.rows && reported == faults;
    }
    ShutdownLogging();
    return asExpected && CountDumps() == 2 * faults ? 0 : 1;
}
