// A host that faults again and again and goes on. It notes where each of its functions returns to (-finstrument-functions),
// and leaves in a shared record what the driver must find in the log and on standard output: the true call stack of each
// fault, and how many lines each thread has logged.
//
//   host CASE
#include <ErrorHandlerDll/ErrorHandlerDll.h>
#include <ErrorHandlerDll/ExceptionHandler.h>
#include <ErrorHandlerDll/LinuxStructuredException.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <new>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr int kMaxDumps = 256;
constexpr int kMaxFrames = 104;
constexpr int kMaxThreads = 16;
constexpr std::size_t kSignalStackSize = 1 << 20; // under a sanitizer the dump needs much
constexpr std::uintptr_t kGap = 0;                // among the notes: here lie frames that the host cannot know

struct DumpRecord
{
    std::int32_t thread;
    std::int32_t isBroken; // a signal was sent into it: any part may be missing
    std::int32_t written;  // 1: by the constructor, 2: by the library's handler, too
    std::int32_t count;
    std::uintptr_t programCounter;
    std::uintptr_t frames[kMaxFrames]; // innermost first, as in the dump
};

struct Record
{
    std::atomic<std::int32_t> dumpCount;
    std::atomic<std::int32_t> stateChanges; // signal mask, alternate stack or errno after a dump
    std::atomic<std::int64_t> slowestDumpNs;
    std::int64_t lines[kMaxThreads];
    DumpRecord dumps[kMaxDumps];
};

enum class Way
{
    JUMP,             // the library handles the fault in the signal handler, which is left by siglongjmp
    JUMP_THEN_HANDLE, // left by siglongjmp first
    THROW,            // thrown out of the handler
    RETURN,           // the handler returns to a function that throws
};

// Not in thread-local storage, which would take from small stacks.
struct Thread
{
    volatile std::uintptr_t notes[4096];
    volatile int noteCount;
    volatile bool isGuarded;
    Way way;
    bool hasGap; // the fault is in code that notes nothing
    sigjmp_buf place;
    DumpRecord* dump;
    alignas(StructuredException) unsigned char pending[sizeof(StructuredException)];
    int writer;
    void (*run)();
    std::size_t signalStackSize;
};

Record* gRecord;
Thread gThreads[kMaxThreads];
thread_local Thread* tThread;
Way gWay;
int gSecondsToLog = 1; // for a thread that starts after a fault
bool gOthersCanLog = true;
std::atomic<bool> gSendsIntoDumps;

void Require(bool condition, int status)
{
    if (!condition)
    {
        _exit(status);
    }
}

std::int64_t Now()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * std::int64_t{1000000000} + now.tv_nsec;
}

[[gnu::no_instrument_function]] void AddNote(std::uintptr_t address)
{
    const int count = tThread->noteCount;
    tThread->notes[count] = address;
    tThread->noteCount = count + 1;
}

void LogNext()
{
    std::int64_t& lines = gRecord->lines[tThread->writer];
    if (LogFormatted(ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, "Host - ", "worker %d line %lld.", tThread->writer,
                     static_cast<long long>(lines + 1)))
    {
        ++lines;
    }
}

// ---- Threads ----------------------------------------------------------------------------------------------------------

void UseSignalStack(std::size_t size)
{
    const std::size_t mapped = (size + 8191) & ~std::size_t{4095}; // a page without access below
    auto* const memory = static_cast<char*>(mmap(nullptr, mapped, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(memory + 4096, mapped - 4096, PROT_READ | PROT_WRITE);
    const stack_t stack = {memory + mapped - size, 0, size};
    sigaltstack(&stack, nullptr);
}

void BeginThread(Thread& thread, const void* returnAddress)
{
    tThread = &thread;
    thread.noteCount = 0;
    AddNote(reinterpret_cast<std::uintptr_t>(returnAddress));
    if (thread.signalStackSize != 0)
    {
        UseSignalStack(thread.signalStackSize);
    }
}

void* RunThread(void* argument)
{
    Thread& thread = *static_cast<Thread*>(argument);
    BeginThread(thread, __builtin_return_address(0));
    thread.noteCount = 1; // the call above, noted half
    thread.run();
    return nullptr;
}

pthread_t Start(int writer, void (*run)(), std::size_t signalStackSize = kSignalStackSize, std::size_t stackSize = 1 << 20)
{
    Thread& thread = gThreads[writer];
    thread.writer = writer;
    thread.run = run;
    thread.signalStackSize = signalStackSize;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, stackSize);
    pthread_t started = {};
    Require(pthread_create(&started, &attributes, RunThread, &thread) == 0, 3);
    return started;
}

void LetOthersLog()
{
    if (gOthersCanLog)
    {
        const pthread_t other = Start(tThread->writer + kMaxThreads / 2, LogNext, 0);
        timespec end = {};
        clock_gettime(CLOCK_MONOTONIC, &end);
        end.tv_sec += gSecondsToLog;
        Require(pthread_clockjoin_np(other, nullptr, CLOCK_MONOTONIC, &end) == 0, 4);
    }
}

// ---- Signals ----------------------------------------------------------------------------------------------------------

// What a dump must leave as it was.
struct ThreadState
{
    ThreadState()
    {
        pthread_sigmask(SIG_SETMASK, nullptr, &m_mask);
        sigaltstack(nullptr, &m_stack);
    }
    void Compare() const
    {
        const ThreadState now;
        if (m_errno != now.m_errno || std::memcmp(&m_mask, &now.m_mask, 8) != 0 || m_stack.ss_sp != now.m_stack.ss_sp ||
            m_stack.ss_flags != now.m_stack.ss_flags)
        {
            ++gRecord->stateChanges;
        }
    }

    int m_errno = errno;
    sigset_t m_mask = {};
    stack_t m_stack = {};
};

// A handler calls this first: the interrupted place belongs between its own frame and what was noted before.
[[gnu::noinline]] void NoteSignal(const ucontext_t* context, const void* returnAddress)
{
    tThread->noteCount = tThread->noteCount - 2; // this function and the handler
    if (tThread->hasGap)
    {
        AddNote(kGap);
    }
    AddNote(static_cast<std::uintptr_t>(context->uc_mcontext.gregs[REG_RIP]));
    AddNote(reinterpret_cast<std::uintptr_t>(returnAddress));
    AddNote(0); // this function, which is about to return
}

[[gnu::noinline]] DumpRecord& RecordDump(const ucontext_t* context)
{
    const int index = gRecord->dumpCount++;
    Require(index < kMaxDumps, 5);
    DumpRecord& dump = gRecord->dumps[index];
    dump.thread = gettid();
    dump.isBroken = gSendsIntoDumps ? 1 : 0;
    dump.programCounter = static_cast<std::uintptr_t>(context->uc_mcontext.gregs[REG_RIP]);
    for (int i = tThread->noteCount - 2; i >= 0 && dump.count < kMaxFrames; --i)
    {
        dump.frames[dump.count++] = tThread->notes[i];
    }
    return dump;
}

StructuredException& Pending()
{
    return *reinterpret_cast<StructuredException*>(tThread->pending);
}

void Handle(StructuredException& exception)
{
    ExceptionHandler::HandleStructuredException("Host::HandleFatalSignal", exception, false);
    tThread->dump->written = 2;
}

[[noreturn, gnu::force_align_arg_pointer]] void ThrowPending()
{
    throw StructuredException(Pending());
}

// As if the interrupted code had called a function that throws. The unwinder looks up the byte before a return address.
void ReturnToThrow(ucontext_t* context)
{
    greg_t* const registers = context->uc_mcontext.gregs;
    registers[REG_RSP] -= static_cast<greg_t>(sizeof(void*));
    *reinterpret_cast<greg_t*>(registers[REG_RSP]) = registers[REG_RIP] + 1;
    registers[REG_RIP] = reinterpret_cast<greg_t>(&ThrowPending);
}

[[gnu::noinline]] void HandleFatalSignal(int signal, siginfo_t* info, void* context)
{
    const int notesBefore = tThread->noteCount;
    NoteSignal(static_cast<ucontext_t*>(context), __builtin_return_address(0));
    DumpRecord& dump = RecordDump(static_cast<ucontext_t*>(context));
    const ThreadState before;
    const std::int64_t start = Now();
    StructuredException exception(signal, static_cast<ucontext_t*>(context), info);
    gRecord->slowestDumpNs = std::max<std::int64_t>(gRecord->slowestDumpNs, Now() - start);
    before.Compare();
    dump.written = 1;
    tThread->dump = &dump;
    if (info->si_code <= 0) // sent
    {
        tThread->noteCount = notesBefore;
        return;
    }
    if (tThread->way == Way::THROW)
    {
        throw StructuredException(exception);
    }
    if (tThread->way == Way::JUMP)
    {
        Handle(exception);
        siglongjmp(tThread->place, 1);
    }
    std::memcpy(tThread->pending, &exception, sizeof exception);
    if (tThread->way == Way::JUMP_THEN_HANDLE)
    {
        siglongjmp(tThread->place, 1);
    }
    ReturnToThrow(static_cast<ucontext_t*>(context));
}

void JumpOut(int, siginfo_t*, void*)
{
    if (tThread != nullptr && tThread->isGuarded)
    {
        siglongjmp(tThread->place, 1);
    }
}

void Install(int signal, void (*handler)(int, siginfo_t*, void*))
{
    struct sigaction action = {};
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
    sigaction(signal, &action, nullptr);
}

// The boundary: what faults in `run` ends here, and all goes on.
void Guard(Way way, void (*run)(int), int argument)
{
    const ThreadState before;
    const int notes = tThread->noteCount;
    tThread->way = way;
    tThread->isGuarded = true;
    if (sigsetjmp(tThread->place, 1) == 0)
    {
        try
        {
            run(argument);
        }
        catch (StructuredException& exception)
        {
            tThread->noteCount = notes;
            Handle(exception);
        }
    }
    else
    {
        tThread->noteCount = notes;
        if (way == Way::JUMP_THEN_HANDLE)
        {
            Handle(Pending());
        }
    }
    tThread->isGuarded = false;
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    before.Compare();
    LogNext();
    LetOthersLog();
}

// ---- Where it faults --------------------------------------------------------------------------------------------------

using PluginStep = void (*)(void (*)(int), int);
PluginStep gPluginStep;

template <int Size>
void Step(void (*next)(int), int depth)
{
    volatile char frame[Size];
    next(depth);
    frame[0] = 0;
}

void Descend(int depth);

[[gnu::noinline]] int DescendFromLibc(const void* depth, const void*)
{
    tThread->noteCount = tThread->noteCount - 1;
    AddNote(kGap); // libc's function
    AddNote(reinterpret_cast<std::uintptr_t>(__builtin_return_address(0)));
    Descend(*static_cast<const int*>(depth));
    tThread->noteCount = tThread->noteCount - 1;
    return 0;
}

// Calls functions of many shapes, of the plug-in and of libc among them, and faults at depth 0.
void Descend(int depth)
{
    static const PluginStep kSteps[] = {Step<16>, gPluginStep, Step<700>, Step<4000>};
    if (depth == 0)
    {
        *reinterpret_cast<volatile int*>(0x10) = 1;
    }
    else if (depth % 5 == 4)
    {
        int two[] = {depth - 1, depth - 1};
        qsort(two, 2, sizeof two[0], DescendFromLibc);
    }
    else
    {
        kSteps[depth % 5](Descend, depth - 1);
    }
}

void Overflow(int depth)
{
    volatile int next = depth + 1;
    Overflow(next);
    next = 0;
}

void OverflowTwice()
{
    tThread->hasGap = true; // between a call and its note
    Guard(Way::JUMP, Overflow, 0);
    Guard(Way::JUMP, Overflow, 0);
}

void FaultTwice()
{
    Guard(Way::JUMP, Descend, 0);
    Guard(Way::JUMP, Descend, 1);
}

void FaultTenTimes()
{
    for (const int depth : {0, 7, 3, 12, 1, 9, 2, 5, 14, 4})
    {
        Guard(gWay, Descend, depth);
    }
}

// ---- Cases ------------------------------------------------------------------------------------------------------------

std::atomic<int> gRunning;
pthread_t gMain;

void FaultInFourThreads()
{
    pthread_t threads[4];
    gRunning = 4;
    for (int i = 0; i < 4; ++i)
    {
        threads[i] = Start(i + 1,
                           []
                           {
                               for (int depth = 1; depth <= 4; ++depth)
                               {
                                   Guard(gWay, Descend, depth);
                               }
                               --gRunning;
                           });
    }
    LoggingSettings settings;
    GetLoggingOptions(&settings);
    for (int round = 0; gRunning > 0; ++round)
    {
        LogNext();
        if (round % 7 == 0)
        {
            SetLoggingOptions(&settings);
            InitialiseLogging(true, ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, round % 2 == 0 ? "hostb.log" : "hosta.log");
        }
        usleep(100);
    }
    for (const pthread_t thread : threads)
    {
        pthread_join(thread, nullptr);
    }
}

void FaultInChild()
{
    Guard(Way::JUMP, Descend, 4);
    const pid_t child = fork();
    if (child == 0)
    {
        tThread->writer = 1;
        Guard(Way::JUMP, Descend, 7);
        Guard(Way::THROW, Descend, 2);
        std::exit(0);
    }
    int status = 1;
    waitpid(child, &status, 0);
    Guard(Way::THROW, Descend, 3);
    Require(status == 0, 7);
}

void FaultInReloaded()
{
    PluginStep place = nullptr;
    for (const char* const path : {"./first.so", "./second.so", "./first.so", "./second.so"})
    {
        void* const plugin = dlopen(path, RTLD_NOW);
        static PluginStep step;
        step = reinterpret_cast<PluginStep>(dlsym(plugin, "PluginStep"));
        Require(place == nullptr || place == step, 8);
        place = step;
        for (const Way way : {Way::JUMP, Way::THROW})
        {
            Guard(
                way, [](int) { step(nullptr, 0); }, 0);
        }
        dlclose(plugin);
    }
}

void JumpOutOfCallback()
{
    const auto callback = [](ZelvoReaderErrorCode, char*, void*)
    {
        tThread->dump->written = 2;
        siglongjmp(tThread->place, 1);
    };
    ExceptionHandler::SetErrorCallback(callback, nullptr);
    FaultTenTimes();
    ExceptionHandler::SetErrorCallback(nullptr, nullptr);
    FaultTwice();
}

// The delays reach every stretch of the dumps of a fault.
void JumpOutByAlarm()
{
    for (int microseconds = 5; microseconds < 1000; microseconds += 12)
    {
        const auto run = [](int delay)
        {
            const itimerval alarm = {{}, {0, delay}};
            setitimer(ITIMER_REAL, &alarm, nullptr);
            Descend(1);
        };
        Guard(Way::JUMP, run, microseconds);
    }
    FaultTwice();
}

void SendIntoDumps()
{
    static std::atomic<int> delay;
    gSendsIntoDumps = true;
    tThread->hasGap = true;
    for (int microseconds = 5; microseconds < 700; microseconds += 13)
    {
        delay = 0;
        const auto send = []
        {
            while (delay == 0)
            {
            }
            for (const std::int64_t end = Now() + delay * std::int64_t{1000}; Now() < end;)
            {
            }
            pthread_kill(gMain, SIGSEGV);
        };
        const pthread_t sender = Start(1, send);
        const auto run = [](int after)
        {
            delay = after;
            Descend(1);
        };
        Guard(Way::JUMP, run, microseconds);
        pthread_join(sender, nullptr);
    }
    gSendsIntoDumps = false;
    tThread->hasGap = false;
    FaultTwice();
    pthread_join(Start(2, FaultTwice), nullptr);
}

// A handler that dumps and returns, anywhere in a loop that logs.
void DumpOnRequest()
{
    tThread->hasGap = true;
    gRunning = 1;
    const auto send = []
    {
        for (int i = 0; i < 30; ++i)
        {
            usleep(static_cast<useconds_t>(1000 + 37 * i));
            pthread_kill(gMain, SIGUSR1);
        }
        usleep(5000);
        gRunning = 0;
    };
    const pthread_t sender = Start(1, send);
    while (gRunning != 0)
    {
        LogNext();
    }
    pthread_join(sender, nullptr);
}

void FaultInLogCall()
{
    for (const Way way : {Way::JUMP, Way::JUMP_THEN_HANDLE, Way::JUMP})
    {
        const auto run = [](int)
        {
            auto* const memory =
                static_cast<unsigned char*>(mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
            mprotect(memory + 4096, 4096, PROT_NONE);
            LogMessageAndBufferAsHex(ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, "Host - ", "bytes", memory + 4000, 4000);
        };
        tThread->hasGap = true;
        Guard(way, run, 0);
        tThread->hasGap = false;
        Guard(Way::THROW, Descend, 1);
    }
}

// The handler of a signal that is not fatal faults itself.
void FaultInHandler(int, siginfo_t*, void* context)
{
    tThread->hasGap = true; // libc's raise
    NoteSignal(static_cast<ucontext_t*>(context), __builtin_return_address(0));
    tThread->hasGap = false;
    Descend(2);
}

void FaultInHandlers()
{
    Install(SIGUSR2, FaultInHandler);
    for (const Way way : {Way::JUMP, Way::THROW, Way::JUMP_THEN_HANDLE})
    {
        Guard(
            way, [](int) { raise(SIGUSR2); }, 0);
        Guard(way, Descend, 3);
    }
}

bool gSetsOptions;

void ReportAtLength(ZelvoReaderErrorCode, char*, void*)
{
    if (tThread->writer == 0)
    {
        if (gSetsOptions)
        {
            LoggingSettings settings;
            GetLoggingOptions(&settings);
            SetLoggingOptions(&settings);
        }
        unsigned char bytes[1600];
        std::generate(bytes, bytes + sizeof bytes, [i = 0]() mutable { return static_cast<unsigned char>(i++); });
        LogFormatted(ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, "Host - bytes ", "%05000d", 7);
        LogMessageAndBufferAsHex(ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, "Host - bytes", "", bytes, sizeof bytes);
    }
}

// Another thread keeps the log for two seconds, in the middle of an error block of its own.
void FaultBesideOwner()
{
    ExceptionHandler::SetErrorCallback(ReportAtLength, nullptr);
    gRunning = 0;
    const auto holdLog = []
    {
        const auto writeBlock = [](const char*, void*)
        {
            LogNext();
            gRunning = 1;
            usleep(2000000);
            LogNext();
        };
        ExceptionHandler::GenericHandleException("Host::Owner", ZR_ERROR_UNKNOWN, "owner", false, writeBlock, nullptr);
    };
    const pthread_t owner = Start(1, holdLog);
    while (gRunning == 0)
    {
        usleep(1000);
    }
    gOthersCanLog = false;
    Guard(gWay, Descend, 2);
    gOthersCanLog = true;
    pthread_join(owner, nullptr);
    Guard(gWay, Descend, 3);
}

void SetOptionsBesideOwner()
{
    gSetsOptions = true;
    FaultBesideOwner();
}

void Filter(std::uint32_t action)
{
    const sock_filter program[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                                   BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_process_vm_readv, 0, 1),
                                   BPF_STMT(BPF_RET | BPF_K, action), BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog filter = {4, const_cast<sock_filter*>(program)};
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    Require(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0, 9);
}

void Limit(__rlimit_resource resource)
{
    const rlimit none = {};
    setrlimit(resource, &none);
}

void HideProc()
{
    Require(unshare(CLONE_NEWNS) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0, 9);
    Require(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 && umount2("/proc", MNT_DETACH) == 0, 9);
}

template <void (*kRestrict)()>
void FaultRestricted()
{
    std::signal(SIGXFSZ, SIG_IGN);
    Guard(Way::JUMP, Descend, 2);
    kRestrict();
    FaultTwice();
}

// The loader needs kilobytes to bind a function at its first call. What the library's functions need of that is on trial.
void BindOwnFunctions()
{
    const ThreadState state;
    state.Compare();
    gettid();
    if (sigsetjmp(tThread->place, 1) == 0)
    {
        siglongjmp(tThread->place, 1);
    }
}

void FaultOnSmallSignalStack(void (*run)())
{
    BindOwnFunctions();
    // Room for a signal frame and 4 KiB.
    const std::size_t size = std::max<std::size_t>(8192, getauxval(AT_MINSIGSTKSZ) + 4096);
    pthread_join(Start(1, run, size, 65536), nullptr);
}

const struct
{
    const char* name;
    void (*run)();
    Way way;
} kCases[] = {
    {"jump", FaultTenTimes, Way::JUMP},
    {"jump-then-handle", FaultTenTimes, Way::JUMP_THEN_HANDLE},
    {"throw", FaultTenTimes, Way::THROW},
    {"return", FaultTenTimes, Way::RETURN},
    {"threads-jump", FaultInFourThreads, Way::JUMP},
    {"threads-throw", FaultInFourThreads, Way::THROW},
    {"threads-return", FaultInFourThreads, Way::RETURN},
    {"fork", FaultInChild, {}},
    {"reload", FaultInReloaded, {}},
    {"callback-jumps", JumpOutOfCallback, Way::JUMP},
    {"alarm", JumpOutByAlarm, {}},
    {"sent", SendIntoDumps, {}},
    {"dumps-on-request", DumpOnRequest, {}},
    {"fault-in-log-call", FaultInLogCall, {}},
    {"nested", FaultInHandlers, {}},
    {"owner-jump", FaultBesideOwner, Way::JUMP},
    {"owner-jump-then-handle", FaultBesideOwner, Way::JUMP_THEN_HANDLE},
    {"owner-throw", FaultBesideOwner, Way::THROW},
    {"owner-throw-options", SetOptionsBesideOwner, Way::THROW},
    {"readv-refused",
     FaultRestricted<[]
                     {
                         Filter(SECCOMP_RET_ERRNO | EPERM);
                     }>,
     {}},
    {"readv-kills",
     FaultRestricted<[]
                     {
                         Filter(SECCOMP_RET_KILL_PROCESS);
                     }>,
     {}},
    {"no-proc", FaultRestricted<HideProc>, {}},
    {"chroot",
     FaultRestricted<[]
                     {
                         Require(chroot(".") == 0, 9);
                     }>,
     {}},
    {"not-dumpable",
     FaultRestricted<[]
                     {
                         prctl(PR_SET_DUMPABLE, 0);
                     }>,
     {}},
    {"no-memory",
     FaultRestricted<[]
                     {
                         Limit(RLIMIT_AS);
                     }>,
     {}},
    {"no-descriptors",
     FaultRestricted<[]
                     {
                         Limit(RLIMIT_NOFILE);
                     }>,
     {}},
    {"no-file-size",
     FaultRestricted<[]
                     {
                         Limit(RLIMIT_FSIZE);
                     }>,
     {}},
    {"closed-descriptors",
     FaultRestricted<[]
                     {
                         close_range(3, ~0U, 0);
                     }>,
     {}},
    {"fifo",
     FaultRestricted<[]
                     {
                         gOthersCanLog = false;
                     }>,
     {}},
    {"small-signal-stack", [] { FaultOnSmallSignalStack(FaultTwice); }, {}},
    {"small-signal-stack-overflow", [] { FaultOnSmallSignalStack(OverflowTwice); }, {}},
    {"small-thread", [] { pthread_join(Start(1, FaultTwice, 0, 16384), nullptr); }, {}},
};

} // namespace

extern "C"
{
    [[gnu::no_instrument_function]] void __cyg_profile_func_enter(void*, void* callSite)
    {
        if (tThread != nullptr)
        {
            AddNote(reinterpret_cast<std::uintptr_t>(callSite));
        }
    }
    [[gnu::no_instrument_function]] void __cyg_profile_func_exit(void*, void*)
    {
        if (tThread != nullptr && tThread->noteCount > 0)
        {
            tThread->noteCount = tThread->noteCount - 1;
        }
    }
}

int main(int argc, char** argv)
{
    const int descriptor = open("record", O_RDWR | O_CLOEXEC);
    gRecord = static_cast<Record*>(mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0));
    close(descriptor);
    gSecondsToLog = std::getenv("SLOW") != nullptr ? 30 : 1;
    gMain = pthread_self();
    gThreads[0].signalStackSize = kSignalStackSize;
    BeginThread(gThreads[0], __builtin_return_address(0));
    gThreads[0].noteCount = 1;
    for (const int signal : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGUSR1})
    {
        Install(signal, HandleFatalSignal);
    }
    Install(SIGALRM, JumpOut);
    gPluginStep = reinterpret_cast<PluginStep>(dlsym(dlopen("./plugin.so", RTLD_NOW), "PluginStep"));

    const std::string name = argc > 1 ? argv[1] : "";
    LoggingSettings settings = {};
    settings.flushInterval = 100;
    settings.maxFileSize = 20000;
    settings.strategy = name.find("threads") == 0 ? LOGGING_STRATEGY_FILE_SIZE : LOGGING_STRATEGY_APPEND;
    SetLoggingOptions(&settings);
    InitialiseLogging(true, ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, "hosta.log");
    for (int i = 0; i < 30; ++i)
    {
        LogNext();
    }
    LetOthersLog();
    for (const auto& each : kCases)
    {
        if (each.name == name)
        {
            gWay = each.way;
            each.run();
            name == "fifo" ? _exit(0) : std::exit(0);
        }
    }
    return 2;
}
