// A host that faults, and goes on or ends. It notes where each of its functions returns to (-finstrument-functions), and
// leaves in a shared record what must be found in the log and on standard output: the true call stack of each fault, and how
// many lines each thread has logged.
#ifndef HARNESS_CRASH_HOST_H
#define HARNESS_CRASH_HOST_H

#include "support/Allocations.h"
#include <ErrorHandlerDll/ErrorHandlerDll.h>
#include <ErrorHandlerDll/ExceptionHandler.h>
#include <ErrorHandlerDll/LinuxStructuredException.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csetjmp>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <optional>
#include <string_view>
#include <sys/mman.h>
#include <thread>
#include <tuple>
#include <unistd.h>

constexpr int kMaxThreads = 16;
constexpr std::size_t kSignalStackSize = 1 << 20; // under a sanitizer the dump needs much

enum class Way
{
    END,              // the handler ends the process
    JUMP,             // the library handles the fault in the signal handler, which is left by siglongjmp
    JUMP_THEN_HANDLE, // left by siglongjmp first
    THROW,            // thrown out of the handler
    RETURN,           // the handler returns to a function that throws
};

struct DumpRecord
{
    std::int64_t thread;
    std::int64_t written; // 1: by the constructor, 2: by the library's handler, too
    std::int64_t count;
    std::uintptr_t frames[104]; // innermost first, as in the dump
};

// judge.py reads the same fields.
struct Record
{
    std::atomic<std::int64_t> dumpCount;
    std::atomic<std::int64_t> stateChanges; // signal mask, alternate stack, errno or use of the heap in a dump
    std::int64_t modules;                   // loaded at least
    std::int64_t steps;                     // instructions of the calls that were stepped through
    std::int64_t printed;                   // lines given to stdio
    std::int64_t lines[kMaxThreads];        // whose calls have returned
    std::int64_t before[kMaxThreads];       // the same before the fault that ends the process
    DumpRecord dumps[1024];
};

using Run = void (*)();

inline void Fault()
{
    *reinterpret_cast<volatile int*>(0x10) = 1;
}

// Not in thread-local storage, which would take from small stacks.
struct Thread
{
    volatile std::uintptr_t notes[4096];
    volatile int noteCount;
    volatile bool isGuarded;
    bool stopsOnFault; // plays the owner of a lock that never leaves
    pthread_t self;
    int number;
    int round; // of its faults
    unsigned int seed;
    long stepsLeft;
    int signalAfterSteps; // 0: stop for ever
    sigjmp_buf place;
    DumpRecord* dump;
    std::optional<StructuredException> pending;
    Run bottom = Fault; // called where its descents end
};

inline std::string_view gName; // of the case
inline int gNumber = 0;        // of threads, or instructions
inline Way gWay = Way::END;
inline Record* gRecord = nullptr;
inline Thread gThreads[kMaxThreads];
inline constinit thread_local Thread* tThread = nullptr;
inline const bool gIsSlow = std::getenv("SLOW") != nullptr;
inline const std::chrono::seconds gTimeToDump{gIsSlow ? 30 : 3}; // what a watchdog leaves a dying process
inline const std::chrono::seconds gTimeToLog{gIsSlow ? 30 : 1};  // for a thread that starts after a fault
inline std::atomic<int> gDumpsToEnd{1};                          // the process ends with the last of so many
inline std::atomic<int> gState{0};                               // of what the threads agree on

// Ends the process with this status, unless the condition holds.
inline void Require(bool condition, int status)
{
    if (!condition)
    {
        _exit(status);
    }
}

inline void Await(int state)
{
    while (gState < state)
    {
        usleep(100);
    }
}

[[noreturn]] inline void StopForEver()
{
    for (++gState;;)
    {
        pause();
    }
}

// ---- Lines ------------------------------------------------------------------------------------------------------------

inline void LogNext(int writer = tThread->number)
{
    const long long line = gRecord->lines[writer] + 1;
    if (LogFormatted(ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, "Host - ", "worker %d line %lld.", writer, line))
    {
        gRecord->lines[writer] = line;
    }
}

inline void NoteLines()
{
    std::copy(std::begin(gRecord->lines), std::end(gRecord->lines), gRecord->before);
}

inline void PrintNext()
{
    // 64 bytes, which divide stdio's buffer: what other threads print never cuts a line in two.
    std::printf("printed %55lld\n", static_cast<long long>(++gRecord->printed));
}

// ---- Notes ------------------------------------------------------------------------------------------------------------

[[gnu::no_instrument_function]] inline void AddNote(std::uintptr_t address)
{
    const int count = tThread->noteCount;
    tThread->notes[count] = address;
    tThread->noteCount = count + 1;
}

extern "C"
{
    [[gnu::no_instrument_function, gnu::used]] inline void __cyg_profile_func_enter(void*, void* callSite)
    {
        if (tThread != nullptr)
        {
            AddNote(reinterpret_cast<std::uintptr_t>(callSite));
        }
    }
    [[gnu::no_instrument_function, gnu::used]] inline void __cyg_profile_func_exit(void*, void*)
    {
        if (tThread != nullptr)
        {
            tThread->noteCount = std::max(0, tThread->noteCount - 1);
        }
    }
}

// A handler, which notes nothing of itself, calls this first: the interrupted place, and what the handler returns to.
[[gnu::no_instrument_function]] inline void NoteSignal(const void* context, const void* returnAddress)
{
    AddNote(static_cast<std::uintptr_t>(static_cast<const ucontext_t*>(context)->uc_mcontext.gregs[REG_RIP]));
    AddNote(reinterpret_cast<std::uintptr_t>(returnAddress));
}

// ---- Threads and signals ----------------------------------------------------------------------------------------------

inline void BeginThread(int number, std::size_t signalStackSize)
{
    tThread = &gThreads[number];
    tThread->self = pthread_self();
    tThread->number = number;
    tThread->noteCount = 0;
    tThread->seed = static_cast<unsigned int>(getpid() * kMaxThreads + number);
    if (signalStackSize != 0)
    {
        const std::size_t mapped = (signalStackSize + 8191) & ~std::size_t{4095}; // a page without access below
        auto* const memory = static_cast<char*>(mmap(nullptr, mapped, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(memory + 4096, mapped - 4096, PROT_READ | PROT_WRITE);
        const stack_t stack = {memory + mapped - signalStackSize, 0, signalStackSize};
        sigaltstack(&stack, nullptr);
    }
}

template <class Function>
std::jthread Start(int number, Function run, std::size_t signalStackSize = kSignalStackSize)
{
    const auto begin = [=]
    {
        BeginThread(number, signalStackSize);
        run();
    };
    return std::jthread(begin);
}

inline void Install(int signal, void (*handler)(int, siginfo_t*, void*))
{
    struct sigaction action = {};
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
    if (signal == SIGTRAP)
    {
        sigfillset(&action.sa_mask); // what it sends arrives when it returns, at the very instruction
    }
    sigaction(signal, &action, nullptr);
}

// What a dump must leave as it was.
namespace ThreadState
{

using Values = std::tuple<int, unsigned long, void*, int>;

inline Values Read()
{
    sigset_t mask = {};
    stack_t stack = {};
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    sigaltstack(nullptr, &stack);
    return {errno, mask.__val[0], stack.ss_sp, stack.ss_flags};
}

inline void Compare(const Values& before)
{
    gRecord->stateChanges += Read() != before ? 1 : 0;
}

} // namespace ThreadState

// ---- What follows a fault ---------------------------------------------------------------------------------------------

[[gnu::noinline]] inline DumpRecord& RecordDump()
{
    const auto index = static_cast<std::size_t>(gRecord->dumpCount++);
    Require(index < std::size(gRecord->dumps), 5);
    DumpRecord& dump = gRecord->dumps[index];
    dump.thread = gettid();
    for (int i = tThread->noteCount - 2; i >= 0 && dump.count < static_cast<int>(std::size(dump.frames)); --i)
    {
        dump.frames[dump.count++] = tThread->notes[i];
    }
    return dump;
}

inline void Handle(StructuredException& exception)
{
    ExceptionHandler::HandleStructuredException("Host::HandleFatalSignal", exception, false);
    tThread->dump->written = 2;
}

[[noreturn, gnu::force_align_arg_pointer]] inline void ThrowPending()
{
    throw StructuredException(*tThread->pending);
}

inline void Leave(StructuredException& exception, greg_t* registers)
{
    switch (gWay)
    {
    case Way::END:
        if (gName != "ends-after-first")
        {
            Handle(exception);
        }
        if (--gDumpsToEnd > 0)
        {
            StopForEver();
        }
        _exit(0);
    case Way::THROW:
        throw StructuredException(exception);
    case Way::JUMP:
        Handle(exception);
        siglongjmp(tThread->place, 1);
    case Way::JUMP_THEN_HANDLE:
        tThread->pending.emplace(exception);
        siglongjmp(tThread->place, 1);
    case Way::RETURN:
        tThread->pending.emplace(exception);
        // As if the interrupted code had called a function. The unwinder looks up the byte before a return address.
        registers[REG_RSP] -= static_cast<greg_t>(sizeof(void*));
        *reinterpret_cast<greg_t*>(registers[REG_RSP]) = registers[REG_RIP] + 1;
        registers[REG_RIP] = reinterpret_cast<greg_t>(&ThrowPending);
    }
}

[[gnu::no_instrument_function]] inline void HandleFatalSignal(int signal, siginfo_t* info, void* argument)
{
    if (tThread->stopsOnFault)
    {
        StopForEver();
    }
    auto* const context = static_cast<ucontext_t*>(argument);
    const int notesBefore = tThread->noteCount;
    NoteSignal(context, __builtin_return_address(0));
    DumpRecord& dump = RecordDump();
    if (gWay == Way::END)
    {
        NoteLines();
    }
    const ThreadState::Values before = ThreadState::Read();
    const long allocations = Allocations::tCount;
    const auto start = std::chrono::steady_clock::now();
    StructuredException exception(signal, context, info);
    Require(std::chrono::steady_clock::now() - start < gTimeToDump, 3);
    gRecord->stateChanges += Allocations::tCount != allocations ? 1 : 0;
    ThreadState::Compare(before);
    dump.written = 1;
    tThread->dump = &dump;
    if (info->si_code <= 0 && gWay != Way::END) // sent
    {
        tThread->noteCount = notesBefore;
        return;
    }
    Leave(exception, context->uc_mcontext.gregs);
}

inline void LetOthersLog()
{
    const int writer = tThread->number + kMaxThreads / 2;
    const auto other = std::async(std::launch::async, [=] { LogNext(writer); });
    Require(other.wait_for(gTimeToLog) == std::future_status::ready, 4);
}

// What faults in `run` ends here, and all goes on.
inline void Guard(Run run)
{
    const ThreadState::Values before = ThreadState::Read();
    const int notes = tThread->noteCount;
    tThread->isGuarded = true;
    try
    {
        if (sigsetjmp(tThread->place, 1) == 0)
        {
            run();
        }
        else if (gWay == Way::JUMP_THEN_HANDLE)
        {
            Handle(*tThread->pending);
        }
    }
    catch (StructuredException& exception)
    {
        Handle(exception);
    }
    tThread->isGuarded = false;
    tThread->noteCount = notes;
    ThreadState::Compare(before);
    LogNext();
    LetOthersLog();
}

inline void FaultInRounds(int rounds, Run run)
{
    for (tThread->round = 0; tThread->round < rounds; ++tThread->round)
    {
        Guard(run);
    }
}

#endif
