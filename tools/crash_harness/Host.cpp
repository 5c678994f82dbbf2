// The process that crashes: logs numbered lines, prints, and then faults in the way that its first argument names, or works
// until the driver injects a fault.
//
//   host CASE WORKERS append|overwrite|rotate
#include "Backend.h"
#include "Heap.h"
#include "Record.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <string>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <ucontext.h>
#include <unistd.h>
#include <vector>

namespace
{

constexpr std::size_t kPage = 4096;
constexpr std::size_t kBigStack = 256 * 1024;
constexpr unsigned char kPattern = 0xA5;
constexpr int kExitStatus = 42;
constexpr int kLinesBefore = 250; // flushed in part

Record* gRecord = nullptr;
int gWorkers = 1;
std::size_t gStackSize = kBigStack;
std::uint64_t gExpectedDumps = 1;
const char* gAfterDump = "_exit";
thread_local bool tStopsOnFault = false;
thread_local unsigned char* tStack = nullptr;

void LogNext(int worker)
{
    std::atomic<std::uint64_t>& returned = gRecord->m_returned[worker];
    const std::uint64_t number = returned.load(std::memory_order_relaxed) + 1;
    if (Backend::Log(worker, number))
    {
        returned.store(number);
    }
}

void PrintNext()
{
    // 64 bytes, which divide stdio's buffer: what other threads print never cuts a line in two.
    std::printf("printed %55llu\n", static_cast<unsigned long long>(gRecord->m_printed.load()));
    ++gRecord->m_printed;
}

void NoteBefore()
{
    for (int i = 0; i < kMaxWorkers; ++i)
    {
        gRecord->m_before[i] = gRecord->m_returned[i];
    }
    gRecord->m_frozen = 1;
}

// An alternate stack with a guard page on either side.
void UseSignalStack()
{
    const std::size_t size = (gStackSize + kPage - 1) / kPage * kPage;
    auto* const memory =
        static_cast<unsigned char*>(mmap(nullptr, size + 2 * kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(memory + kPage, size, PROT_READ | PROT_WRITE);
    tStack = memory + kPage + size - gStackSize;
    std::memset(tStack, kPattern, gStackSize);
    stack_t stack = {};
    stack.ss_sp = tStack;
    stack.ss_size = gStackSize;
    sigaltstack(&stack, nullptr);
}

// The handler of a signal that is not fatal, as a host may have one to note that it was asked for something.
void LogFromHandler(int)
{
    for (int i = 0; i < 3; ++i)
    {
        LogNext(1);
    }
}

[[noreturn]] void StopForEver()
{
    for (;;)
    {
        pause();
    }
}

[[gnu::noinline]] void Fault()
{
    *reinterpret_cast<volatile int*>(0x10) = 1;
}

void FaultNoted()
{
    NoteBefore();
    Fault();
}

// Says that the driver may go on, and waits for it.
void MeetDriver()
{
    gRecord->m_ready = 1;
    while (gRecord->m_go == 0)
    {
        usleep(200);
    }
}

// Runs `hold` in another thread, which stops while it holds something, and then faults here.
void FaultBesideOwner(void (*hold)())
{
    std::thread(
        [hold]
        {
            UseSignalStack();
            tStopsOnFault = true;
            hold();
        })
        .detach();
    usleep(50000);
    FaultNoted();
}

// Where the compiler cannot see that nobody uses the memory.
[[gnu::noinline]] void* Allocate(std::size_t size)
{
    void* memory = std::malloc(size);
    asm volatile("" : "+r"(memory));
    return memory;
}

void DoSomething(int worker, unsigned int& seed)
{
    switch (rand_r(&seed) % 16)
    {
    case 0:
    {
        std::vector<void*> blocks;
        for (int i = 0; i < 30; ++i)
        {
            blocks.push_back(Allocate(static_cast<std::size_t>(rand_r(&seed) % 3000)));
        }
        for (void* block : blocks)
        {
            std::free(block);
        }
        break;
    }
    case 1:
        PrintNext();
        break;
    case 2:
        Backend::RaiseAndHandle();
        break;
    case 3:
    {
        const std::time_t now = std::time(nullptr);
        std::tm fields;
        localtime_r(&now, &fields);
        std::mktime(&fields);
        break;
    }
    case 4:
        if (rand_r(&seed) % 4 == 0)
        {
            if (void* const plugin = dlopen("./plugin.so", RTLD_NOW))
            {
                dlclose(plugin);
            }
        }
        break;
    case 5:
        if (rand_r(&seed) % 8 == 0)
        {
            const pid_t child = fork();
            if (child == 0)
            {
                _exit(0);
            }
            waitpid(child, nullptr, 0);
        }
        break;
    default:
        LogNext(worker);
        break;
    }
}

void Work(int worker)
{
    auto seed = static_cast<unsigned int>(getpid() * kMaxWorkers + worker);
    for (;;)
    {
        DoSomething(worker, seed);
    }
}

void RunWorkers()
{
    static pthread_barrier_t barrier;
    pthread_barrier_init(&barrier, nullptr, static_cast<unsigned int>(gWorkers));
    for (int i = 1; i < gWorkers; ++i)
    {
        std::thread(
            [i]
            {
                UseSignalStack();
                pthread_barrier_wait(&barrier);
                Work(i);
            })
            .detach();
    }
    pthread_barrier_wait(&barrier);
    gRecord->m_ready = 1;
    Work(0);
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
        UseSignalStack();
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
    void (*m_run)();
};

constexpr Case kCases[] = {
    {"random", RunWorkers},
    {"step", StepThroughLogging},
    {"until-rotated", LogUntilRotated},
    {"null-write", FaultNoted},
    {"exit-normally",
     []
     {
         gAfterDump = "exit";
         FaultNoted();
     }},
    {"exit-after-first",
     []
     {
         gAfterDump = "first";
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
             _exit(0);
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

int CountModule(dl_phdr_info*, std::size_t, void* count)
{
    ++*static_cast<std::uint64_t*>(count);
    return 0;
}

} // namespace

void Host::OnFault()
{
    if (tStopsOnFault)
    {
        StopForEver();
    }
    ++gRecord->m_faults;
    Heap::CountCalls();
}

void Host::OnFirstDump()
{
    ++gRecord->m_dumped;
    if (std::strcmp(gAfterDump, "first") == 0)
    {
        kill(getpid(), SIGKILL);
    }
}

void Host::OnDumped(const void* context, bool keptErrno)
{
    // Where the processor's state was saved above the context, the signal frame ends; below it is the handler's.
    const unsigned char* lowest = tStack;
    while (*lowest == kPattern)
    {
        ++lowest;
    }
    gRecord->m_stackUse = static_cast<std::uint64_t>(static_cast<const unsigned char*>(context) - lowest);
    gRecord->m_heapCalls += Heap::GetCalls();
    gRecord->m_errnoLost += keptErrno ? 0 : 1;
    if (++gRecord->m_finished < gExpectedDumps)
    {
        StopForEver();
    }
    if (std::strcmp(gAfterDump, "exit") == 0)
    {
        std::exit(kExitStatus);
    }
    _exit(kExitStatus);
}

int main(int argc, char** argv)
{
    const int descriptor = open("record", O_RDWR | O_CLOEXEC);
    gRecord = static_cast<Record*>(mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0));
    if (argc != 4 || gRecord == MAP_FAILED)
    {
        return 2;
    }
    close(descriptor);
    gWorkers = std::atoi(argv[2]);
    if (const char* const size = std::getenv("STACK_SIZE")) // beyond the signal frame
    {
        gStackSize = getauxval(AT_MINSIGSTKSZ) + static_cast<std::size_t>(std::atol(size));
    }
    Backend::Start(argv[3]);
    Backend::InstallHandlers();
    std::signal(SIGUSR1, LogFromHandler);
    UseSignalStack();
    if (std::getenv("SILENT_BEFORE") == nullptr)
    {
        for (int i = 0; i < kLinesBefore; ++i)
        {
            LogNext(0);
        }
        for (int i = 0; i < 10; ++i)
        {
            PrintNext();
        }
    }
    for (const Case& entry : kCases)
    {
        if (std::strcmp(entry.m_name, argv[1]) == 0)
        {
            std::uint64_t modules = 0;
            dl_iterate_phdr(CountModule, &modules);
            gRecord->m_modules = modules;
            entry.m_run();
        }
    }
    return 3;
}
