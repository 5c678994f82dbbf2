// The process that crashes: host CASE append|overwrite|rotate LINES NUMBER. Here is where it faults: anywhere, at each
// instruction of a line, with a lock held, in a damaged or restricted process.
#include "Host.h"

#include <ErrorHandlerDll/HalvikException.h>

#include <barrier>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <iomanip>
#include <link.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sstream>
#include <sys/auxv.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <utility>
#include <x86intrin.h>

namespace
{

using PluginStep = void (*)(void (*next)(int), int depth);

PluginStep gPluginStep = nullptr;

PluginStep FindStep(void* plugin)
{
    return reinterpret_cast<PluginStep>(dlsym(plugin, "PluginStep"));
}

template <int Size>
void Step(void (*next)(int), int depth)
{
    volatile char frame[Size];
    next(depth);
    frame[0] = 0;
}

void Descend(int depth);

int DescendFromLibc(const void* depth, const void*)
{
    Descend(*static_cast<const int*>(depth));
    return 0;
}

// Calls functions of many shapes, of the plug-in and of libc among them, and faults at depth 0.
void Descend(int depth)
{
    const PluginStep steps[] = {Step<16>, gPluginStep, Step<700>, Step<4000>};
    if (depth == 0)
    {
        tThread->bottom();
    }
    else if (depth % 5 == 4)
    {
        int two[] = {depth - 1, depth - 1};
        qsort(two, 2, sizeof two[0], DescendFromLibc);
    }
    else
    {
        steps[depth % 5](Descend, depth - 1);
    }
}

// ---- With a lock held, or in a damaged process ------------------------------------------------------------------------

void CorruptHeap()
{
    std::thread([] {}).join(); // a process of one thread takes no locks
    void* volatile blocks[] = {std::malloc(2000), std::malloc(2000)};
    std::free(blocks[0]); // now on the list of unsorted blocks
    asm volatile("movq %1, 8(%0)" : : "r"(blocks[0]), "r"(0x4141414141414140) : "memory");
    blocks[1] = std::malloc(3000); // faults with the heap's lock held
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

void SmashStack()
{
    tThread->noteCount = 0;
    std::memset(__builtin_frame_address(0), 0x41, 400);
    asm volatile("movq $0x4141414141414141, %%rbp\n\tmovl $0, 0x10" ::: "memory");
}

void LoadModules()
{
    for (int i = 0; i < 500; ++i)
    {
        const std::string path = "./module" + std::to_string(i) + ".so";
        std::filesystem::copy("plugin.so", path);
        Require(dlopen(path.c_str(), RTLD_NOW) != nullptr, 8);
        ++gRecord->modules;
    }
    Fault();
}

void DamageModuleList()
{
    auto* map = static_cast<link_map*>(nullptr);
    dlinfo(dlopen(nullptr, RTLD_NOW), RTLD_DI_LINKMAP, &map);
    map->l_next->l_next = reinterpret_cast<link_map*>(0x41414141);
    gRecord->modules = 1;
    Fault();
}

void FaultAtFork()
{
    const auto at = [](const char* name)
    {
        return gName == name ? Fault : nullptr;
    };
    pthread_atfork(at("fork-prepare"), at("fork-parent"), at("fork-child"));
    _exit(fork() == 0 ? 1 : (wait(nullptr), 0));
}

// The logger reads what it is given with its section held.
void LogUnreadable()
{
    auto* const memory = static_cast<unsigned char*>(mmap(nullptr, 8192, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    munmap(memory + 4096, 4096);
    LogMessageAndBufferAsHex(ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, "Host - ", "bytes", memory + 4000, 4000);
}

// ---- Again and again --------------------------------------------------------------------------------------------------

void DescendAnew()
{
    Descend(tThread->round * tThread->round * tThread->round % 16);
}

void Overflow()
{
    volatile char frame[64];
    Overflow();
    frame[0] = 0;
}

void FaultTwice()
{
    FaultInRounds(2, gName == "overflow" ? Overflow : DescendAnew);
}

// All at once. When they go on, this thread logs in between, and goes from file to file.
void FaultInThreads()
{
    static std::barrier<> barrier(gNumber);
    gDumpsToEnd = gNumber;
    const auto run = []
    {
        barrier.arrive_and_wait();
        gWay == Way::END ? Descend(2) : FaultInRounds(4, DescendAnew);
        ++gState;
    };
    for (int i = 1; i <= gNumber; ++i)
    {
        Start(i, run).detach();
    }
    LoggingSettings settings;
    GetLoggingOptions(&settings);
    for (int round = 0; gWay != Way::END && gState < gNumber; ++round)
    {
        LogNext();
        if (round % 7 == 0)
        {
            SetLoggingOptions(&settings);
            InitialiseLogging(true, ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, round % 2 == 0 ? "hostb.log" : "hosta.log");
        }
        usleep(100);
    }
    Await(gNumber);
}

void FaultInChildToo()
{
    if (tThread->round == 1)
    {
        int status = 0;
        const pid_t child = fork();
        tThread->number = child == 0 ? 1 : 0;
        Require(child == 0 || (waitpid(child, &status, 0) == child && status == 0), 7);
    }
    DescendAnew();
}

void FaultInReloaded()
{
    static void* plugin = nullptr;
    static PluginStep place = nullptr;
    if (plugin != nullptr)
    {
        dlclose(plugin);
    }
    plugin = dlopen(tThread->round % 2 == 0 ? "./first.so" : "./second.so", RTLD_NOW);
    Require(place == nullptr || place == FindStep(plugin), 8);
    place = FindStep(plugin);
    place(Descend, 0);
}

void JumpOutOfCallback()
{
    const auto jump = [](ZelvoReaderErrorCode, char*, void*)
    {
        tThread->dump->written = 2;
        siglongjmp(tThread->place, 1);
    };
    ExceptionHandler::SetErrorCallback(tThread->round < 10 ? +jump : nullptr, nullptr);
    DescendAnew();
}

void JumpOut(int, siginfo_t*, void*)
{
    if (tThread->isGuarded)
    {
        siglongjmp(tThread->place, 1);
    }
}

// Sends the signal to the calling thread after that time; 0: no more.
void SendAfter(long microseconds, int signal)
{
    static timer_t timer;
    if (tThread->round == 0)
    {
        sigevent event = {};
        event.sigev_notify = SIGEV_THREAD_ID;
        event._sigev_un._tid = gettid();
        event.sigev_signo = signal;
        timer_create(CLOCK_MONOTONIC, &event, &timer);
    }
    const itimerspec times = {{}, {0, microseconds * 1000}};
    timer_settime(timer, 0, &times, nullptr);
}

constexpr int kInterruptedRounds = 84;

// The delays reach every stretch of the dumps of a fault. The signal jumps out of them, or is that of another fault.
void InterruptDumps()
{
    const bool isOver = tThread->round >= kInterruptedRounds;
    Install(SIGALRM, JumpOut);
    SendAfter(isOver ? 0 : 5 + 12 * tThread->round, gName == "alarm" ? SIGALRM : SIGSEGV);
    if (isOver)
    {
        Start(2, FaultTwice).join();
    }
    Descend(1);
}

// A handler that dumps and returns, anywhere in a loop that logs.
void DumpOnRequest()
{
    SendAfter(1000 + 37 * tThread->round, SIGUSR1);
    while (gRecord->dumpCount == tThread->round)
    {
        LogNext();
    }
}

// The handler of a signal that is not fatal.
[[gnu::no_instrument_function]] void FaultInHandler(int, siginfo_t*, void* context)
{
    NoteSignal(context, __builtin_return_address(0));
    Descend(2);
}

void FaultInHandlers()
{
    Install(SIGUSR2, FaultInHandler);
    raise(SIGUSR2);
}

void ReportAtLength(ZelvoReaderErrorCode, char*, void*)
{
    if (tThread->number != 0)
    {
        return; // the owner's own error
    }
    if (gName == "owner-throw-options")
    {
        LoggingSettings settings;
        GetLoggingOptions(&settings);
        SetLoggingOptions(&settings);
    }
    unsigned char bytes[1600] = {};
    LogFormatted(ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, "Host - bytes ", "%05000d", 7);
    LogMessageAndBufferAsHex(ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, "Host - bytes", "", bytes, sizeof bytes);
}

void KeepLog(const char*, void*)
{
    LogNext();
    ++gState;
    sleep(2);
    LogNext();
}

// In the first round, another thread keeps the log for two seconds, in the middle of an error block of its own.
void FaultBesideOwner()
{
    if (tThread->round == 0)
    {
        ExceptionHandler::SetErrorCallback(ReportAtLength, nullptr);
        const auto own = []
        {
            ExceptionHandler::GenericHandleException("", ZR_ERROR_UNKNOWN, "", false, KeepLog, {});
            ++gState;
        };
        Start(1, own).detach();
    }
    Await(tThread->round + 1);
    Descend(2);
}

bool Forbid(__rlimit_resource resource)
{
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit none = {};
    return setrlimit(resource, &none) == 0;
}

bool FilterReads(std::uint32_t action)
{
    sock_filter program[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                             BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_process_vm_readv, 0, 1),
                             BPF_STMT(BPF_RET | BPF_K, action), BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog rule = {4, program};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &rule) == 0;
}

bool LoseProc()
{
    return unshare(CLONE_NEWNS) == 0 && mount("", "/proc", "", MS_PRIVATE, "") == 0 &&
           mount("none", "/proc", "tmpfs", 0, "") == 0; // the root may be no mount, as in a chroot
}

// What the process may no longer do.
bool Restrict(std::string_view name)
{
    return name == "readv-refused"        ? FilterReads(SECCOMP_RET_ERRNO | EPERM)
           : name == "readv-kills"        ? FilterReads(SECCOMP_RET_KILL_PROCESS)
           : name == "no-proc"            ? LoseProc()
           : name == "chroot"             ? chroot(".") == 0
           : name == "not-dumpable"       ? prctl(PR_SET_DUMPABLE, 0) == 0
           : name == "no-memory"          ? Forbid(RLIMIT_AS)
           : name == "no-descriptors"     ? Forbid(RLIMIT_NOFILE)
           : name == "no-file-size"       ? Forbid(RLIMIT_FSIZE)
           : name == "closed-descriptors" ? close_range(3, ~0U, 0) == 0
                                          : name == "fifo";
}

void FaultRestricted()
{
    Require(tThread->round != 1 || Restrict(gName), 9);
    DescendAnew();
}

void FaultOnSmallStack()
{
    if (tThread->round == 0)
    {
        // The loader needs kilobytes to bind a function at its first call: of the host's own that is over before.
        gettid();
        std::chrono::steady_clock::now();
        siglongjmp(tThread->place, 1);
    }
    const bool isSmall = gName == "small-thread";
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, isSmall ? 16384 : 65536);
    pthread_setattr_default_np(&attributes);
    const std::size_t room = std::max<std::size_t>(8192, getauxval(AT_MINSIGSTKSZ) + 4096);
    Start(1, FaultTwice, isSmall ? 0 : room).join();
}

// ---- At any instruction -----------------------------------------------------------------------------------------------

unsigned int Random()
{
    return static_cast<unsigned int>(rand_r(&tThread->seed));
}

// Of libc, the loader and libstdc++.
void UseLibraries()
{
    std::ostringstream stream;
    const std::time_t now = std::time(nullptr);
    std::tm parts;
    stream << 1.5 * Random() << std::put_time(localtime_r(&now, &parts), "%H:%M");
    std::free(std::realloc(std::malloc(Random() % 5000), Random() % 90000));
    if (Random() % 5 == 0) // it takes a debugger long
    {
        void* const plugin = dlopen("./first.so", RTLD_LAZY);
        FindStep(plugin)([](int) {}, 0);
        dlclose(plugin);
    }
    try
    {
        RaiseError(ZR_ERROR_UNKNOWN, "Host::UseLibraries");
    }
    catch (HalvikException* error)
    {
        delete error;
    }
}

[[noreturn]] void Work()
{
    const Run uses[] = {[] { LogNext(); }, PrintNext, [] { LogNext(); }, UseLibraries};
    for (++gState;;)
    {
        tThread->bottom = uses[Random() % std::size(uses)];
        Descend(static_cast<int>(Random() % 8));
    }
}

// A debugger stops it at each tick, and sends SIGUSR1.
void Wander()
{
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
    for (int i = 1; i <= gNumber; ++i)
    {
        Start(i, Work).detach();
    }
    Await(gNumber);
    usleep(Random() % 30000);
    Thread& victim = gThreads[1 + static_cast<int>(Random()) % gNumber];
    victim.stepsLeft = 1 + Random() % 60;
    victim.signalAfterSteps = gName == "random" ? SIGSEGV : 0;
    pthread_kill(victim.self, SIGTRAP);
    if (gName == "beside-stopped")
    {
        Await(gNumber + 1);
        pthread_kill(gThreads[1 + victim.number % gNumber].self, SIGSEGV);
    }
    StopForEver();
}

void LogFromHandler(int, siginfo_t*, void*)
{
    for (int i = 0; i < 3; ++i)
    {
        LogNext(1);
    }
}

void StepThroughLogging()
{
    Install(SIGTRAP, HandleStep);
    Install(SIGUSR1, LogFromHandler);
    tThread->stepsLeft = gNumber;
    tThread->signalAfterSteps = gName == "step-handler" ? SIGUSR1 : SIGSEGV;
    __writeeflags(__readeflags() | kTrapFlag);
    for (int i = 0; i < 5; ++i)
    {
        LogNext();
    }
    gRecord->steps = gNumber - std::exchange(tThread->stepsLeft, -1);
    Fault(); // noted in the same place as what the handler calls: no signal may come between
}

const struct Place
{
    const char* name; // the case's begins with it; the way out may follow
    Run run;
    int rounds; // 0: one, which ends the process
} kPlaces[] = {
    {"callback-jumps", JumpOutOfCallback, 12},
    {"jump", DescendAnew, 10},
    {"throw", DescendAnew, 10},
    {"return", DescendAnew, 10},
    {"threads", FaultInThreads, 1},
    {"child", FaultInChildToo, 4},
    {"reload", FaultInReloaded, 4},
    {"alarm", InterruptDumps, kInterruptedRounds + 2},
    {"sent", InterruptDumps, kInterruptedRounds + 2},
    {"dumps-on-request", DumpOnRequest, 30},
    {"log-call", LogUnreadable, 4},
    {"nested", FaultInHandlers, 2},
    {"owner", FaultBesideOwner, 2},
    {"small", FaultOnSmallStack, 2},
    {"overflow", FaultOnSmallStack, 2},
    {"wander", Wander, 1},
    {"fault", [] { Descend(2); }, 0},
    {"ends-after-first", Fault, 0},
    {"heap", CorruptHeap, 0},
    {"print", [] { std::printf("%s%s\n", "interrupted ", reinterpret_cast<const char*>(0x10)); }, 0},
    {"stdout", [] { flockfile(stdout); }, 0},
    {"write", LogUnreadable, 0},
    {"localtime", ConvertTime, 0},
    {"dlopen", LoadFaulty, 0},
    {"smashed-stack", SmashStack, 0},
    {"null-call", [] { reinterpret_cast<Run>(std::uintptr_t{0})(); }, 0},
    {"wild-call", [] { reinterpret_cast<Run>(std::uintptr_t{0x414141414140})(); }, 0},
    {"modules", LoadModules, 0},
    {"damaged-list", DamageModuleList, 0},
    {"all-at-once", FaultInThreads, 0},
    {"random", FaultAtRandom, 0},
    {"beside-stopped", FaultAtRandom, 0},
    {"step", StepThroughLogging, 0},
    {"fork", FaultAtFork, 0},
    {"", FaultRestricted, 3},
};

// As its name says; with "other-", another thread does it and stops, with its lock, and this one faults then.
void RunCase()
{
    const bool isOther = gName.starts_with("other-");
    const std::string_view name = gName.substr(isOther ? 6 : 0);
    const Place* const place =
        std::find_if(kPlaces, std::end(kPlaces), [=](auto& each) { return name.starts_with(each.name); });
    gWay = place->rounds == 0                 ? Way::END
           : name.find("handle") != name.npos ? Way::JUMP_THEN_HANDLE
           : name.find("throw") != name.npos  ? Way::THROW
           : name.find("return") != name.npos ? Way::RETURN
                                              : Way::JUMP;
    if (isOther)
    {
        const auto stop = [=]
        {
            tThread->stopsOnFault = true;
            place->run();
            StopForEver();
        };
        Start(1, stop).detach();
        Await(1);
        Descend(2);
    }
    place->rounds == 0 ? place->run() : FaultInRounds(place->rounds, place->run);
}

void StartLogging(std::string_view strategy, long lines)
{
    LoggingSettings settings = {};
    const bool isShort = gName.starts_with("step"); // four lines flush, and go to the next file
    settings.flushInterval = isShort ? 3 : 100;
    settings.maxFileSize = isShort ? 300 : 12000;
    settings.strategy = strategy == "rotate"      ? LOGGING_STRATEGY_FILE_SIZE
                        : strategy == "overwrite" ? LOGGING_STRATEGY_OVERWRITE
                                                  : LOGGING_STRATEGY_APPEND;
    SetLoggingOptions(&settings);
    InitialiseLogging(true, ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, "hosta.log");
    for (long i = 0; i < lines; ++i)
    {
        LogNext();
    }
    if (lines != 0) // else a dump is the log's first line
    {
        LetOthersLog();
    }
}

} // namespace

int main(int, char** argv)
{
    gName = argv[1];
    gNumber = std::atoi(argv[4]);
    const int descriptor = open("record", O_RDWR | O_CLOEXEC);
    gRecord = static_cast<Record*>(mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0));
    close(descriptor);
    BeginThread(0, kSignalStackSize);
    AddNote(reinterpret_cast<std::uintptr_t>(__builtin_return_address(0)));
    for (const int signal : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGUSR1})
    {
        Install(signal, HandleFatalSignal);
    }
    gPluginStep = FindStep(dlopen("./plugin.so", RTLD_NOW));
    dl_iterate_phdr([](dl_phdr_info*, std::size_t, void*) { return (++gRecord->modules, 0); }, nullptr);
    StartLogging(argv[2], std::atol(argv[3]));
    for (int i = 0; i < 10; ++i)
    {
        PrintNext();
    }
    RunCase();
    NoteLines(); // all threads have logged what they will
    gName == "fifo" ? _exit(0) : std::exit(0);
}
