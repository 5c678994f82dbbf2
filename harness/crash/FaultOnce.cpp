// Hosts that end with a fault: anywhere, at each instruction of a line, with a lock held, in a damaged process.
#include "Host.h"
#include <ErrorHandlerDll/HalvikException.h>

#include <algorithm>
#include <barrier>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <link.h>
#include <map>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>
#include <x86intrin.h>

namespace
{

volatile double gSink;
thread_local unsigned int tSeed;
std::atomic<int> gWorking{0};

unsigned int Random()
{
    return static_cast<unsigned int>(rand_r(&tSeed));
}

void UseC()
{
    int numbers[50];
    std::generate(numbers, std::end(numbers), [] { return static_cast<int>(Random() % 1000); });
    const auto compare = [](const void* left, const void* right)
    {
        return *static_cast<const int*>(left) - *static_cast<const int*>(right);
    };
    std::qsort(numbers, std::size(numbers), sizeof numbers[0], compare);
    char text[200];
    std::snprintf(text, sizeof text, "%d %s %.3f", numbers[0], "text", numbers[1] / 3.0);
    gSink = std::strtod("3.25e7", nullptr) + static_cast<double>(std::strlen(text));
    const std::time_t now = std::time(nullptr);
    std::tm parts;
    std::strftime(text, sizeof text, "%H:%M", localtime_r(&now, &parts));
    std::free(std::realloc(std::malloc(Random() % 5000), Random() % 90000));
}

void UseStandardLibrary()
{
    std::map<std::string, int> words;
    std::ostringstream stream;
    for (int i = 0; i < 20; ++i)
    {
        stream << "word" << Random() % 10 << ' ' << 1.5 * i;
        ++words[stream.str()];
    }
    gSink = static_cast<double>(words.size());
}

void ThrowBelow(unsigned int depth)
{
    const std::string owned(depth + 20, 'x'); // something to clean up
    if (depth == 0)
    {
        RaiseError(ZR_ERROR_UNKNOWN, "Host::ThrowBelow");
    }
    ThrowBelow(depth - 1);
}

void UseExceptions()
{
    try
    {
        ThrowBelow(Random() % 6);
    }
    catch (HalvikException* error)
    {
        delete error;
    }
}

void UsePlugin()
{
    void* const plugin = dlopen("./first.so", Random() % 2 == 0 ? RTLD_LAZY : RTLD_NOW);
    const auto step = reinterpret_cast<PluginStep>(dlsym(plugin, "PluginStep"));
    for (int i = 0; i < 100; ++i)
    {
        step([](int depth) { gSink = depth; }, i);
    }
    dlclose(plugin);
}

[[noreturn]] void Work()
{
    tSeed = static_cast<unsigned int>(getpid() * kMaxThreads + tThread->number);
    tThread->hasGap = true;
    ++gWorking;
    // What loads objects takes a debugger long.
    void (*const uses[])() = {LogNext, UseC,      UseExceptions, LogNext,       UseStandardLibrary, LogNext,
                              UseC,    PrintNext, LogNext,       UseExceptions, UsePlugin};
    for (;;)
    {
        uses[Random() % std::size(uses)]();
    }
}

// A debugger stops it at each tick, and sends SIGUSR1.
void Wander()
{
    tThread->way = Way::JUMP;
    Install(SIGPROF, [](int, siginfo_t*, void*) {});
    const itimerval timer = {{0, 4000}, {0, 4000}};
    setitimer(ITIMER_PROF, &timer, nullptr);
    Work();
}

constexpr greg_t kTrapFlag = 0x100; // of the processor: a trap after each instruction

// After tThread->stepsLeft instructions, the thread gets its signal; a negative number ends the steps.
[[gnu::no_instrument_function]] void HandleStep(int, siginfo_t*, void* argument)
{
    greg_t& flags = static_cast<ucontext_t*>(argument)->uc_mcontext.gregs[REG_EFL];
    const long stepsLeft = tThread->stepsLeft--;
    flags = stepsLeft > 0 ? flags | kTrapFlag : flags & ~kTrapFlag;
    if (stepsLeft == 0)
    {
        tThread->signalAfterSteps == 0 ? StopForEver() : static_cast<void>(raise(tThread->signalAfterSteps));
    }
}

// A thread faults where it is; with "beside-stopped", another has stopped for ever where it was.
void FaultAtRandom()
{
    Install(SIGTRAP, HandleStep);
    std::vector<pthread_t> workers = {pthread_self()};
    std::vector<std::jthread> threads;
    for (int i = 1; i < gCase.number; ++i)
    {
        threads.push_back(Start(i, Work));
        workers.push_back(threads.back().native_handle());
    }
    const auto send = [=]
    {
        tSeed = static_cast<unsigned int>(getpid());
        while (gWorking < gCase.number)
        {
            usleep(100);
        }
        usleep(Random() % 30000);
        const std::size_t victim = Random() % workers.size();
        gThreads[victim].stepsLeft = 1 + Random() % 60;
        gThreads[victim].signalAfterSteps = gCase.name == "random" ? SIGSEGV : 0;
        pthread_kill(workers[victim], SIGTRAP);
        if (gCase.name == "beside-stopped")
        {
            while (gState == 0)
            {
                usleep(100);
            }
            pthread_kill(workers[(victim + 1) % workers.size()], SIGSEGV);
        }
    };
    threads.push_back(Start(gCase.number, send));
    Work();
}

void StepThroughLogging()
{
    const auto logFromHandler = [](int, siginfo_t*, void*)
    {
        for (int i = 0; i < 3; ++i)
        {
            LogNext(1);
        }
    };
    Install(SIGTRAP, HandleStep);
    Install(SIGUSR1, logFromHandler);
    tThread->stepsLeft = gCase.number;
    tThread->signalAfterSteps = gCase.name == "step-handler" ? SIGUSR1 : SIGSEGV;
    __writeeflags(__readeflags() | kTrapFlag);
    for (int i = 0; i < 5; ++i)
    {
        LogNext();
    }
    gRecord->steps = gCase.number - std::exchange(tThread->stepsLeft, -1);
    Descend(0); // noted in the same place as what the handler calls: no signal may come between
}

// ---- With a lock held, at the end -------------------------------------------------------------------------------------

[[gnu::noinline]] void* Allocate(std::size_t size)
{
    void* memory = std::malloc(size);
    asm volatile("" : "+r"(memory));
    return memory;
}

void CorruptHeap()
{
    std::thread([] {}).join(); // a process of one thread takes no locks
    auto** const block = static_cast<void**>(Allocate(2000));
    Allocate(2000);
    std::free(block); // now on the list of unsorted blocks
    asm volatile("movq %1, 8(%0)" : : "r"(block), "r"(0x4141414141414140) : "memory");
    Allocate(3000); // faults with the heap's lock held
}

void PrintWild()
{
    std::printf("%s%s\n", "interrupted ", reinterpret_cast<const char*>(0x10));
}

void ConvertTime()
{
    const std::time_t now = std::time(nullptr);
    localtime_r(&now, reinterpret_cast<std::tm*>(0x10)); // written to with the zone's lock held
}

void LoadFaulty()
{
    setenv("PLUGIN_FAULTS", "1", 1);
    dlopen("./second.so", RTLD_NOW);
}

void FaultAtFork()
{
    const auto fault = []
    {
        Descend(0);
    };
    const bool isInParent = gCase.name == "fork-parent";
    const bool isInChild = gCase.name == "fork-child";
    pthread_atfork(isInParent || isInChild ? nullptr : +fault, isInParent ? +fault : nullptr, isInChild ? +fault : nullptr);
    tThread->hasGap = true;
    _exit(fork() == 0 ? 1 : (wait(nullptr), 0));
}

void SmashStack()
{
    tThread->noteCount = 0;
    volatile auto* frame = static_cast<volatile unsigned char*>(__builtin_frame_address(0));
    for (int i = 0; i < 400; ++i)
    {
        frame[i] = 0x41;
    }
    asm volatile("movq $0x4141414141414141, %%rbp\n\tmovl $0, 0x10" ::: "memory");
}

void LoadModules()
{
    for (int i = 0; i < 500; ++i)
    {
        Require(dlopen(("./modules/m" + std::to_string(i) + ".so").c_str(), RTLD_NOW) != nullptr, 8);
        ++gRecord->modules;
    }
    Descend(0);
}

void DamageModuleList()
{
    auto* map = static_cast<link_map*>(nullptr);
    dlinfo(dlopen(nullptr, RTLD_NOW), RTLD_DI_LINKMAP, &map);
    map->l_next->l_next = reinterpret_cast<link_map*>(0x41414141);
    gRecord->modules = 1;
    Descend(0);
}

void FaultInAll()
{
    static std::barrier<> barrier(gCase.number);
    gDumpsToEnd = gCase.number;
    const auto run = []
    {
        barrier.arrive_and_wait();
        Descend(2);
    };
    std::vector<std::jthread> threads;
    for (int i = 1; i < gCase.number; ++i)
    {
        threads.push_back(Start(i, run));
    }
    run();
}

using Run = void (*)();

const struct
{
    const char* name;
    Run run;
    bool hasGap; // it is not the host's own code that faults
} kEnds[] = {
    {"fault", [] { Descend(2); }, false},
    {"killed-after-first", [] { Descend(0); }, false},
    {"heap", CorruptHeap, true},
    {"print", PrintWild, true},
    {"stdout", [] { flockfile(stdout); }, true},
    {"write", [] { LogBytes(reinterpret_cast<unsigned char*>(0x10)); }, true},
    {"localtime", ConvertTime, true},
    {"dlopen", LoadFaulty, true},
    {"smashed-stack", SmashStack, false},
    {"null-call", [] { reinterpret_cast<void (*)()>(std::uintptr_t{0})(); }, true},
    {"wild-call", [] { reinterpret_cast<void (*)()>(std::uintptr_t{0x414141414140})(); }, true},
    {"modules", LoadModules, false},
    {"damaged-list", DamageModuleList, false},
    {"all-at-once", FaultInAll, false},
    {"wander", Wander, true},
    {"random", FaultAtRandom, true},
    {"beside-stopped", FaultAtRandom, true},
    {"step", StepThroughLogging, true},
    {"step-handler", StepThroughLogging, true},
    {"fork-prepare", FaultAtFork, true},
    {"fork-parent", FaultAtFork, true},
    {"fork-child", FaultAtFork, true},
};

} // namespace

// As its name says; with "other-", another thread does it and stops, with its lock, and this one faults then.
void FaultOnce()
{
    const bool isOther = gCase.name.starts_with("other-");
    const std::string name = gCase.name.substr(isOther ? 6 : 0);
    const auto* const end =
        std::find_if(std::begin(kEnds), std::end(kEnds), [&](const auto& each) { return each.name == name; });
    Require(end != std::end(kEnds), 2);
    tThread->hasGap = end->hasGap && !isOther;
    if (isOther)
    {
        const auto stop = [end]
        {
            tThread->stopsOnFault = true;
            end->run();
            StopForEver();
        };
        Start(1, stop).detach();
        while (gState == 0)
        {
            usleep(100);
        }
        Descend(2);
    }
    end->run();
}
