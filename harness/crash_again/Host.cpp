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
#include <chrono>
#include <csetjmp>
#include <csignal>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
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
#include <thread>
#include <unistd.h>

namespace
{

constexpr std::size_t kSignalStackSize = 1 << 20; // under a sanitizer the dump needs much
constexpr int kMaxThreads = 16;
constexpr std::uintptr_t kGap = 0; // among the notes: here lie frames that the host cannot know

enum class Way
{
    JUMP,             // the library handles the fault in the signal handler, which is left by siglongjmp
    JUMP_THEN_HANDLE, // left by siglongjmp first
    THROW,            // thrown out of the handler
    RETURN,           // the handler returns to a function that throws
};

struct DumpRecord
{
    std::int32_t thread;
    std::int32_t isBroken; // a signal was sent into it: any part may be missing
    std::int32_t written;  // 1: by the constructor, 2: by the library's handler, too
    std::int32_t count;
    std::uintptr_t programCounter;
    std::uintptr_t frames[104]; // innermost first, as in the dump
};

struct Record
{
    std::atomic<std::int32_t> dumpCount;
    std::atomic<std::int32_t> stateChanges; // signal mask, alternate stack or errno after a dump
    std::atomic<std::int64_t> slowestDumpNs;
    std::int64_t lines[kMaxThreads];
    DumpRecord dumps[256];
};

// Not in thread-local storage, which would take from small stacks.
struct Thread
{
    volatile std::uintptr_t notes[4096];
    volatile int noteCount;
    volatile bool isGuarded;
    Way way;
    bool hasGap; // the fault is in code that notes nothing
    int number;
    sigjmp_buf place;
    DumpRecord* dump;
    alignas(StructuredException) unsigned char pending[sizeof(StructuredException)];
};

Record* gRecord;
Thread gThreads[kMaxThreads];
thread_local Thread* tThread;
std::string gCase;
int gSecondsToLog = 1; // for a thread that starts after a fault
bool gOthersCanLog = true;
std::atomic<bool> gSendsIntoDumps;
std::atomic<int> gState;

void Require(bool condition, int status)
{
    if (!condition)
    {
        _exit(status);
    }
}

std::int64_t Now()
{
    return std::chrono::steady_clock::now().time_since_epoch().count();
}

void LogNext()
{
    const int number = tThread->number;
    const long long line = gRecord->lines[number] + 1;
    if (LogFormatted(ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, "Host - ", "worker %d line %lld.", number, line))
    {
        gRecord->lines[number] = line;
    }
}

[[gnu::no_instrument_function]] void AddNote(std::uintptr_t address)
{
    const int count = tThread->noteCount;
    tThread->notes[count] = address;
    tThread->noteCount = count + 1;
}

[[gnu::no_instrument_function]] void DropNotes(int count)
{
    tThread->noteCount = std::max(0, tThread->noteCount - count);
}

// ---- Threads ----------------------------------------------------------------------------------------------------------

void BeginThread(int number, std::size_t signalStackSize)
{
    tThread = &gThreads[number];
    tThread->number = number;
    tThread->noteCount = 0;
    if (signalStackSize != 0)
    {
        const std::size_t mapped = (signalStackSize + 8191) & ~std::size_t{4095}; // a page without access below
        auto* const memory = static_cast<char*>(mmap(nullptr, mapped, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(memory + 4096, mapped - 4096, PROT_READ | PROT_WRITE);
        const stack_t stack = {memory + mapped - signalStackSize, 0, signalStackSize};
        sigaltstack(&stack, nullptr);
    }
}

template <class Run>
std::jthread Start(int number, Run run, std::size_t signalStackSize = kSignalStackSize)
{
    return std::jthread(
        [=]
        {
            BeginThread(number, signalStackSize);
            run();
        });
}

void LetOthersLog()
{
    if (gOthersCanLog)
    {
        std::atomic<bool> hasLogged{false};
        const auto run = [&]
        {
            LogNext();
            hasLogged = true;
        };
        const std::jthread other = Start(tThread->number + kMaxThreads / 2, run, 0);
        for (const std::int64_t end = Now() + gSecondsToLog * std::int64_t{1000000000}; !hasLogged; usleep(100))
        {
            Require(Now() < end, 4);
        }
    }
}

void SetStackSize(std::size_t size)
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, size);
    pthread_setattr_default_np(&attributes);
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
    DropNotes(2); // this function and the handler
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
    Require(index < static_cast<int>(std::size(gRecord->dumps)), 5);
    DumpRecord& dump = gRecord->dumps[index];
    dump.thread = gettid();
    dump.isBroken = gSendsIntoDumps ? 1 : 0;
    dump.programCounter = static_cast<std::uintptr_t>(context->uc_mcontext.gregs[REG_RIP]);
    for (int i = tThread->noteCount - 2; i >= 0 && dump.count < static_cast<int>(std::size(dump.frames)); --i)
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

[[gnu::noinline]] void HandleFatalSignal(int signal, siginfo_t* info, void* argument)
{
    auto* const context = static_cast<ucontext_t*>(argument);
    const int notesBefore = tThread->noteCount;
    NoteSignal(context, __builtin_return_address(0));
    DumpRecord& dump = RecordDump(context);
    const ThreadState before;
    const std::int64_t start = Now();
    StructuredException exception(signal, context, info);
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
    // As if the interrupted code had called a function. The unwinder looks up the byte before a return address.
    greg_t* const registers = context->uc_mcontext.gregs;
    registers[REG_RSP] -= static_cast<greg_t>(sizeof(void*));
    *reinterpret_cast<greg_t*>(registers[REG_RSP]) = registers[REG_RIP] + 1;
    registers[REG_RIP] = reinterpret_cast<greg_t>(&ThrowPending);
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
template <class Run>
void Guard(Way way, Run run)
{
    const ThreadState before;
    const int notes = tThread->noteCount;
    tThread->way = way;
    tThread->isGuarded = true;
    if (sigsetjmp(tThread->place, 1) == 0)
    {
        try
        {
            run();
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
void Descend(int depth);

template <int Size>
void Step(void (*next)(int), int depth)
{
    volatile char frame[Size];
    next(depth);
    frame[0] = 0;
}

[[gnu::noinline]] int DescendFromLibc(const void* depth, const void*)
{
    DropNotes(1);
    AddNote(kGap); // libc's function
    AddNote(reinterpret_cast<std::uintptr_t>(__builtin_return_address(0)));
    Descend(*static_cast<const int*>(depth));
    DropNotes(1);
    return 0;
}

// Calls functions of many shapes, of the plug-in and of libc among them, and faults at depth 0.
void Descend(int depth)
{
    const PluginStep steps[] = {Step<16>, gPluginStep, Step<700>, Step<4000>};
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
        steps[depth % 5](Descend, depth - 1);
    }
}

void Overflow(int depth)
{
    volatile int next = depth + 1;
    Overflow(next);
    next = 0;
}

void Fault(Way way, int depth)
{
    Guard(way, [=] { Descend(depth); });
}

void FaultTwice()
{
    Fault(Way::JUMP, 0);
    Fault(Way::JUMP, 1);
}

// ---- Cases ------------------------------------------------------------------------------------------------------------

void FaultTenTimes(Way way)
{
    for (const int depth : {0, 7, 3, 12, 1, 9, 2, 5, 14, 4})
    {
        Fault(way, depth);
    }
}

void FaultInFourThreads(Way way)
{
    const auto run = [=]
    {
        for (int depth = 1; depth <= 4; ++depth)
        {
            Fault(way, depth);
        }
        ++gState;
    };
    const std::jthread threads[] = {Start(1, run), Start(2, run), Start(3, run), Start(4, run)};
    LoggingSettings settings;
    GetLoggingOptions(&settings);
    for (int round = 0; gState < 4; ++round)
    {
        LogNext();
        if (round % 7 == 0)
        {
            SetLoggingOptions(&settings);
            InitialiseLogging(true, ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, round % 2 == 0 ? "hostb.log" : "hosta.log");
        }
        usleep(100);
    }
}

void FaultInChild(Way way)
{
    Fault(Way::JUMP, 4);
    const pid_t child = fork();
    if (child == 0)
    {
        tThread->number = 1;
        Fault(Way::JUMP, 7);
        Fault(way, 2);
        std::exit(0);
    }
    int status = 1;
    waitpid(child, &status, 0);
    Fault(way, 3);
    Require(status == 0, 7);
}

void FaultInReloaded(Way way)
{
    PluginStep place = nullptr;
    for (const char* const path : {"./first.so", "./second.so", "./first.so", "./second.so"})
    {
        void* const plugin = dlopen(path, RTLD_NOW);
        const auto step = reinterpret_cast<PluginStep>(dlsym(plugin, "PluginStep"));
        Require(place == nullptr || place == step, 8);
        place = step;
        Guard(way, [=] { step(nullptr, 0); });
        dlclose(plugin);
    }
}

void JumpOutOfCallback(Way way)
{
    const auto callback = [](ZelvoReaderErrorCode, char*, void*)
    {
        tThread->dump->written = 2;
        siglongjmp(tThread->place, 1);
    };
    ExceptionHandler::SetErrorCallback(callback, nullptr);
    FaultTenTimes(way);
    ExceptionHandler::SetErrorCallback(nullptr, nullptr);
    FaultTwice();
}

// The delays reach every stretch of the dumps of a fault.
void JumpOutByAlarm(Way way)
{
    for (int microseconds = 5; microseconds < 1000; microseconds += 12)
    {
        const auto run = [=]
        {
            const itimerval alarm = {{}, {0, microseconds}};
            setitimer(ITIMER_REAL, &alarm, nullptr);
            Descend(1);
        };
        Guard(way, run);
    }
    FaultTwice();
}

// Another thread sends a fault's signal into each dump.
void SendIntoDumps(Way way)
{
    const pthread_t main = pthread_self();
    gSendsIntoDumps = true;
    tThread->hasGap = true;
    for (int microseconds = 5; microseconds < 700; microseconds += 13)
    {
        const auto send = [=]
        {
            gState.wait(0);
            for (const std::int64_t end = Now() + microseconds * std::int64_t{1000}; Now() < end;)
            {
            }
            pthread_kill(main, SIGSEGV);
        };
        gState = 0;
        const std::jthread sender = Start(1, send);
        const auto run = []
        {
            gState = 1;
            gState.notify_one();
            Descend(1);
        };
        Guard(way, run);
    }
    gSendsIntoDumps = false;
    tThread->hasGap = false;
    FaultTwice();
    Start(2, FaultTwice).join();
}

// A handler that dumps and returns, anywhere in a loop that logs.
void DumpOnRequest(Way)
{
    const pthread_t main = pthread_self();
    const auto send = [=]
    {
        for (unsigned int i = 0; i < 30; ++i)
        {
            usleep(1000 + 37 * i);
            pthread_kill(main, SIGUSR1);
        }
        usleep(5000);
        gState = 1;
    };
    tThread->hasGap = true;
    const std::jthread sender = Start(1, send);
    while (gState == 0)
    {
        LogNext();
    }
}

void FaultInLogCall(Way way)
{
    const auto run = []
    {
        auto* const memory =
            static_cast<unsigned char*>(mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(memory + 4096, 4096, PROT_NONE);
        LogMessageAndBufferAsHex(ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, "Host - ", "bytes", memory + 4000, 4000);
    };
    for (int i = 0; i < 4; ++i)
    {
        tThread->hasGap = true;
        Guard(way, run);
        tThread->hasGap = false;
        Fault(Way::JUMP, 1);
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

void FaultInHandlers(Way way)
{
    Install(SIGUSR2, FaultInHandler);
    Guard(way, [] { raise(SIGUSR2); });
    Fault(way, 3);
}

void ReportAtLength(ZelvoReaderErrorCode, char*, void*)
{
    if (tThread->number != 0)
    {
        return; // the owner's own error
    }
    if (gCase == "owner-throw-options")
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

// Another thread keeps the log for two seconds, in the middle of an error block of its own.
void FaultBesideOwner(Way way)
{
    ExceptionHandler::SetErrorCallback(ReportAtLength, nullptr);
    const auto writeBlock = [](const char*, void*)
    {
        LogNext();
        gState = 1;
        sleep(2);
        LogNext();
    };
    std::jthread owner =
        Start(1, [=] { ExceptionHandler::GenericHandleException("", ZR_ERROR_UNKNOWN, "", false, writeBlock, {}); });
    while (gState == 0)
    {
        usleep(1000);
    }
    gOthersCanLog = false;
    Fault(way, 2);
    owner.join();
    gOthersCanLog = true;
    Fault(way, 3);
}

// What the process may no longer do.
void Restrict()
{
    const auto forbid = [](__rlimit_resource resource)
    {
        const rlimit none = {};
        return setrlimit(resource, &none) == 0;
    };
    const auto filter = [](std::uint32_t action)
    {
        sock_filter program[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                                 BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_process_vm_readv, 0, 1),
                                 BPF_STMT(BPF_RET | BPF_K, action), BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
        const sock_fprog rule = {4, program};
        return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &rule) == 0;
    };
    Require(gCase == "readv-refused" ? filter(SECCOMP_RET_ERRNO | EPERM)
            : gCase == "readv-kills" ? filter(SECCOMP_RET_KILL_PROCESS)
            : gCase == "no-proc"     ? unshare(CLONE_NEWNS) == 0 && mount("", "/", "", MS_REC | MS_PRIVATE, "") == 0 &&
                                       umount2("/proc", MNT_DETACH) == 0
            : gCase == "chroot"             ? chroot(".") == 0
            : gCase == "not-dumpable"       ? prctl(PR_SET_DUMPABLE, 0) == 0
            : gCase == "no-memory"          ? forbid(RLIMIT_AS)
            : gCase == "no-descriptors"     ? forbid(RLIMIT_NOFILE)
            : gCase == "no-file-size"       ? forbid(RLIMIT_FSIZE)
            : gCase == "closed-descriptors" ? close_range(3, ~0U, 0) == 0
                                            : gCase == "fifo",
            9);
}

void FaultRestricted(Way way)
{
    std::signal(SIGXFSZ, SIG_IGN);
    gOthersCanLog = gCase != "fifo";
    Fault(way, 2);
    Restrict();
    FaultTwice();
}

void FaultOnSmallStack(Way way)
{
    // The loader needs kilobytes to bind a function at its first call: of the host's own that is over before.
    const ThreadState state;
    state.Compare();
    gettid();
    if (sigsetjmp(tThread->place, 1) == 0)
    {
        siglongjmp(tThread->place, 1);
    }
    const std::size_t room = std::max<std::size_t>(8192, getauxval(AT_MINSIGSTKSZ) + 4096);
    const auto overflow = [=]
    {
        tThread->hasGap = true; // between a call and its note
        Guard(way, [] { Overflow(0); });
        Guard(way, [] { Overflow(0); });
    };
    SetStackSize(gCase == "small-thread" ? 16384 : 65536);
    const std::jthread thread = gCase == "small-thread" ? Start(1, FaultTwice, 0)
                                : gCase == "overflow"   ? Start(1, overflow, room)
                                                        : Start(1, FaultTwice, room);
}

const struct
{
    void (*run)(Way);
    Way way;
    const char* names; // each with a blank behind it
} kCases[] = {
    {FaultTenTimes, Way::JUMP, "jump "},
    {FaultTenTimes, Way::JUMP_THEN_HANDLE, "jump-then-handle "},
    {FaultTenTimes, Way::THROW, "throw "},
    {FaultTenTimes, Way::RETURN, "return "},
    {FaultInFourThreads, Way::JUMP, "threads-jump "},
    {FaultInFourThreads, Way::THROW, "threads-throw "},
    {FaultInFourThreads, Way::RETURN, "threads-return "},
    {FaultInChild, Way::THROW, "fork "},
    {FaultInReloaded, Way::JUMP, "reload "},
    {FaultInReloaded, Way::THROW, "reload-throw "},
    {JumpOutOfCallback, Way::JUMP, "callback-jumps "},
    {JumpOutByAlarm, Way::JUMP, "alarm "},
    {SendIntoDumps, Way::JUMP, "sent "},
    {DumpOnRequest, {}, "dumps-on-request "},
    {FaultInLogCall, Way::JUMP, "log-call "},
    {FaultInLogCall, Way::JUMP_THEN_HANDLE, "log-call-then-handle "},
    {FaultInHandlers, Way::JUMP, "nested "},
    {FaultInHandlers, Way::THROW, "nested-throw "},
    {FaultBesideOwner, Way::JUMP, "owner-jump "},
    {FaultBesideOwner, Way::JUMP_THEN_HANDLE, "owner-jump-then-handle "},
    {FaultBesideOwner, Way::THROW, "owner-throw owner-throw-options "},
    {FaultRestricted, Way::JUMP,
     "readv-refused readv-kills no-proc chroot not-dumpable no-memory no-descriptors no-file-size closed-descriptors fifo "},
    {FaultOnSmallStack, Way::JUMP, "small-signal-stack overflow small-thread "},
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
        if (tThread != nullptr)
        {
            DropNotes(1);
        }
    }
}

int main(int argc, char** argv)
{
    Require(argc == 2, 2);
    gCase = argv[1];
    const int descriptor = open("record", O_RDWR | O_CLOEXEC);
    gRecord = static_cast<Record*>(mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0));
    close(descriptor);
    gSecondsToLog = std::getenv("SLOW") != nullptr ? 30 : 1;
    BeginThread(0, kSignalStackSize);
    AddNote(reinterpret_cast<std::uintptr_t>(__builtin_return_address(0)));
    for (const int signal : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGUSR1})
    {
        Install(signal, HandleFatalSignal);
    }
    Install(SIGALRM, JumpOut);
    gPluginStep = reinterpret_cast<PluginStep>(dlsym(dlopen("./plugin.so", RTLD_NOW), "PluginStep"));

    LoggingSettings settings = {};
    settings.flushInterval = 100;
    settings.maxFileSize = 20000;
    settings.strategy = gCase.find("threads") == 0 ? LOGGING_STRATEGY_FILE_SIZE : LOGGING_STRATEGY_APPEND;
    SetLoggingOptions(&settings);
    InitialiseLogging(true, ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, "hosta.log");
    for (int i = 0; i < 30; ++i)
    {
        LogNext();
    }
    LetOthersLog();
    for (const auto& each : kCases)
    {
        if (std::strstr(each.names, (gCase + " ").c_str()) == each.names ||
            std::strstr(each.names, (" " + gCase + " ").c_str()))
        {
            each.run(each.way);
            gCase == "fifo" ? _exit(0) : std::exit(0);
        }
    }
    return 2;
}
