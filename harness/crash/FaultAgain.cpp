// Hosts that fault again and again, and go on.
#include "Host.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

void FaultTwice()
{
    Fault(Way::JUMP, 0);
    Fault(Way::JUMP, 1);
}

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
        End();
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

// Sends the signal to the calling thread after that time; 0: no more.
void SendAfter(long microseconds, int signal)
{
    static const timer_t timer = [signal]
    {
        timer_t made = nullptr;
        sigevent event = {};
        event.sigev_notify = SIGEV_THREAD_ID;
        event._sigev_un._tid = gettid();
        event.sigev_signo = signal;
        timer_create(CLOCK_MONOTONIC, &event, &made);
        return made;
    }();
    const itimerspec times = {{}, {0, microseconds * 1000}};
    timer_settime(timer, 0, &times, nullptr);
}

// The delays reach every stretch of the dumps of a fault. The signal jumps out of them, or is that of another fault.
void InterruptDumps(Way way)
{
    const auto jumpOut = [](int, siginfo_t*, void*)
    {
        if (tThread != nullptr && tThread->isGuarded)
        {
            siglongjmp(tThread->place, 1);
        }
    };
    Install(SIGALRM, jumpOut);
    const int signal = gCase.name == "alarm" ? SIGALRM : SIGSEGV;
    gSendsIntoDumps = tThread->hasGap = signal == SIGSEGV;
    for (long microseconds = 5; microseconds < 1000; microseconds += 12)
    {
        const auto run = [=]
        {
            SendAfter(microseconds, signal);
            Descend(1);
        };
        Guard(way, run);
        SendAfter(0, signal);
    }
    gSendsIntoDumps = tThread->hasGap = false;
    FaultTwice();
    Start(2, FaultTwice).join();
}

// A handler that dumps and returns, anywhere in a loop that logs.
void DumpOnRequest(Way way)
{
    tThread->hasGap = true;
    tThread->way = way;
    for (int i = 0; i < 30; ++i)
    {
        SendAfter(1000 + 37 * i, SIGUSR1);
        while (gRecord->dumpCount == i)
        {
            LogNext();
        }
    }
}

void FaultInLogCall(Way way)
{
    const auto run = []
    {
        auto* const memory =
            static_cast<unsigned char*>(mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(memory + 4096, 4096, PROT_NONE);
        LogBytes(memory + 4000);
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
    if (gCase.name == "owner-throw-options")
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
    const auto loseProc = []
    {
        return unshare(CLONE_NEWNS) == 0 && mount("", "/", "", MS_REC | MS_PRIVATE, "") == 0 &&
               umount2("/proc", MNT_DETACH) == 0;
    };
    Require(gCase.name == "readv-refused"        ? filter(SECCOMP_RET_ERRNO | EPERM)
            : gCase.name == "readv-kills"        ? filter(SECCOMP_RET_KILL_PROCESS)
            : gCase.name == "no-proc"            ? loseProc()
            : gCase.name == "chroot"             ? chroot(".") == 0
            : gCase.name == "not-dumpable"       ? prctl(PR_SET_DUMPABLE, 0) == 0
            : gCase.name == "no-memory"          ? forbid(RLIMIT_AS)
            : gCase.name == "no-descriptors"     ? forbid(RLIMIT_NOFILE)
            : gCase.name == "no-file-size"       ? forbid(RLIMIT_FSIZE)
            : gCase.name == "closed-descriptors" ? close_range(3, ~0U, 0) == 0
                                                 : gCase.name == "fifo",
            9);
}

void FaultRestricted(Way way)
{
    std::signal(SIGXFSZ, SIG_IGN);
    gOthersCanLog = gCase.name != "fifo";
    Fault(way, 2);
    Restrict();
    FaultTwice();
}

void Overflow(int depth)
{
    volatile int next = depth + 1;
    Overflow(next);
    next = 0;
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
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, gCase.name == "small-thread" ? 16384 : 65536);
    pthread_setattr_default_np(&attributes);
    const std::jthread thread = gCase.name == "small-thread" ? Start(1, FaultTwice, 0)
                                : gCase.name == "overflow"   ? Start(1, overflow, room)
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
    {InterruptDumps, Way::JUMP, "alarm sent "},
    {DumpOnRequest, Way::JUMP, "dumps-on-request "},
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

bool FaultAgain()
{
    for (const auto& each : kCases)
    {
        if ((" " + std::string(each.names)).find(" " + gCase.name + " ") != std::string::npos)
        {
            each.run(each.way);
            return true;
        }
    }
    return false;
}
