#include "Cases.h"

#include "Backend.h"
#include "Heap.h"
#include "SignalStack.h"
#include "Workload.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace Cases
{

AfterDump gAfterDump = AfterDump::LEAVE_AT_ONCE;
std::uint64_t gExpectedDumps = 1;
thread_local bool tStopsOnFault = false;

namespace
{

[[gnu::noinline]] void Fault()
{
    *reinterpret_cast<volatile int*>(0x10) = 1;
}

void FaultNoted()
{
    NoteBefore();
    Fault();
}

// Runs `hold` in another thread, which stops while it holds something, and then faults here.
void FaultBesideOwner(void (*hold)())
{
    std::thread(
        [hold]
        {
            SignalStack::Use();
            tStopsOnFault = true;
            hold();
        })
        .detach();
    usleep(50000);
    FaultNoted();
}

// Tells the driver which line is the first of the second file.
void LogUntilRotated()
{
    while (access("host.2.log", F_OK) != 0)
    {
        LogNext(0);
    }
    _exit(kExitStatus);
}

// The driver steps through what lies between the two breakpoints.
void StepThroughLogging()
{
    // Up to the line that is to be stepped through, such as one that flushes.
    const long lines = std::atol(std::getenv("LINES_BEFORE"));
    for (long i = 0; i < lines; ++i)
    {
        LogNext(0);
    }
    MeetDriver();
    NoteBefore();
    asm volatile("int3");
    Backend::Log(0, gRecord->m_returned[0] + 1);
    asm volatile("int3");
    gRecord->m_returned[0] += 1;
    NoteBefore();
    Fault();
}

void ThreadsAtOnce()
{
    gExpectedDumps = static_cast<std::uint64_t>(gWorkers);
    static pthread_barrier_t barrier;
    pthread_barrier_init(&barrier, nullptr, static_cast<unsigned int>(gWorkers));
    NoteBefore();
    const auto fault = []
    {
        SignalStack::Use();
        pthread_barrier_wait(&barrier);
        Fault();
    };
    for (int i = 1; i < gWorkers; ++i)
    {
        std::thread(fault).detach();
    }
    fault();
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuse-after-free"
#pragma GCC diagnostic ignored "-Winfinite-recursion"
[[gnu::noinline]] void CorruptHeap()
{
    auto** const block = static_cast<void**>(Allocate(2000));
    Allocate(32);
    std::free(block); // now on the list of unsorted blocks
    block[1] = reinterpret_cast<void*>(0x4141414141414140);
    NoteBefore();
    Allocate(3000); // faults with the heap's lock held
}

[[gnu::noinline]] void SmashStack()
{
    NoteBefore();
    volatile auto* frame = static_cast<volatile unsigned char*>(__builtin_frame_address(0));
    for (int i = 0; i < 400; ++i)
    {
        frame[i] = 0x41;
    }
    asm volatile("movq $0x4141414141414141, %%rbp\n\tmovl $0, 0x10" ::: "memory");
}

int Overflow(volatile int* depth)
{
    volatile int next = *depth + 1;
    return Overflow(&next) + next;
}
#pragma GCC diagnostic pop

void FaultInLocaltime()
{
    NoteBefore();
    const std::time_t now = std::time(nullptr);
    localtime_r(&now, reinterpret_cast<std::tm*>(0x10)); // written to with the zone's lock held
}

void FaultInFormatting()
{
    NoteBefore();
    std::printf("%s%s\n", "interrupted ", reinterpret_cast<const char*>(0x10));
}

void FaultInWrite()
{
    NoteBefore();
    Backend::LogBytes(reinterpret_cast<const unsigned char*>(0x10), 100); // read with the logger's section held
}

void ExhaustDescriptors()
{
    rlimit limit = {64, 64};
    setrlimit(RLIMIT_NOFILE, &limit);
    while (open("/dev/null", O_RDONLY) >= 0)
    {
    }
}

void ExhaustMemory()
{
    Heap::Exhaust();
    rlimit limit = {1, 1};
    setrlimit(RLIMIT_AS, &limit);
}

void LoadModules()
{
    for (int i = 0; i < 500; ++i)
    {
        const std::string name = "./modules/m" + std::to_string(i) + ".so";
        if (dlopen(name.c_str(), RTLD_NOW) == nullptr)
        {
            std::abort();
        }
    }
}

void DamageModuleList()
{
    auto* map = static_cast<link_map*>(nullptr);
    dlinfo(dlopen(nullptr, RTLD_NOW), RTLD_DI_LINKMAP, &map);
    map->l_next->l_next = reinterpret_cast<link_map*>(0x41414141);
}

void CallWild(std::uintptr_t address)
{
    NoteBefore();
    reinterpret_cast<void (*)()>(address)();
}

struct Case
{
    const char* m_name;
    Run m_run;
};

constexpr Case kAll[] = {
    {"random", RunWorkers},
    {"step", StepThroughLogging},
    {"until-rotated", LogUntilRotated},
    {"null-write", FaultNoted},
    {"exit-normally",
     []
     {
         gAfterDump = AfterDump::EXIT;
         FaultNoted();
     }},
    {"exit-after-first",
     []
     {
         gAfterDump = AfterDump::DIE_AFTER_FIRST;
         FaultNoted();
     }},
    {"own-heap",
     []
     {
         Heap::SetTrap(FaultNoted);
         Allocate(10);
     }},
    {"other-heap",
     []
     {
         FaultBesideOwner(
             []
             {
                 Heap::SetTrap(StopForEver);
                 Allocate(10);
             });
     }},
    {"own-printf", FaultInFormatting},
    {"own-stdout",
     []
     {
         flockfile(stdout);
         FaultNoted();
     }},
    {"other-stdout",
     []
     {
         FaultBesideOwner(
             []
             {
                 flockfile(stdout);
                 StopForEver();
             });
     }},
    {"own-write", FaultInWrite},
    {"other-write",
     []
     {
         FaultBesideOwner(FaultInWrite);
     }},
    {"own-localtime", FaultInLocaltime},
    {"other-localtime",
     []
     {
         FaultBesideOwner(FaultInLocaltime);
     }},
    {"own-dlopen",
     []
     {
         setenv("PLUGIN_FAULTS", "1", 1);
         NoteBefore();
         dlopen("./plugin.so", RTLD_NOW);
     }},
    {"other-dlopen",
     []
     {
         FaultBesideOwner(
             []
             {
                 setenv("PLUGIN_FAULTS", "1", 1);
                 dlopen("./plugin.so", RTLD_NOW);
             });
     }},
    {"fork-prepare",
     []
     {
         pthread_atfork(FaultNoted, nullptr, nullptr);
         fork();
     }},
    {"fork-parent",
     []
     {
         pthread_atfork(nullptr, FaultNoted, nullptr);
         if (fork() == 0)
         {
             _exit(0);
         }
         StopForEver();
     }},
    {"fork-child",
     []
     {
         pthread_atfork(nullptr, nullptr, FaultNoted);
         _exit(fork() == 0 ? 1 : (wait(nullptr), kExitStatus));
     }},
    {"threads", ThreadsAtOnce},
    {"corrupt-heap", CorruptHeap},
    {"smashed-stack", SmashStack},
    {"no-memory",
     []
     {
         ExhaustMemory();
         FaultNoted();
     }},
    {"no-descriptors",
     []
     {
         ExhaustDescriptors();
         FaultNoted();
     }},
    {"null-call",
     []
     {
         CallWild(0);
     }},
    {"wild-call",
     []
     {
         CallWild(0x414141414140);
     }},
    {"modules",
     []
     {
         LoadModules();
         FaultNoted();
     }},
    {"damaged-list",
     []
     {
         DamageModuleList();
         FaultNoted();
     }},
    {"stack-overflow",
     []
     {
         NoteBefore();
         volatile int depth = 0;
         Overflow(&depth);
     }},
};

} // namespace

Run Find(const char* name)
{
    for (const Case& each : kAll)
    {
        if (std::strcmp(each.m_name, name) == 0)
        {
            return each.m_run;
        }
    }
    return nullptr;
}

} // namespace Cases
