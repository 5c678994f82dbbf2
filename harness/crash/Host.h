// A host that faults, and goes on or ends. It notes where each of its functions returns to (-finstrument-functions), and
// leaves in a shared record what must be found in the log and on standard output: the true call stack of each fault, and how
// many lines each thread has logged.
#ifndef HARNESS_CRASH_HOST_H
#define HARNESS_CRASH_HOST_H

#include <ErrorHandlerDll/ErrorHandlerDll.h>
#include <ErrorHandlerDll/ExceptionHandler.h>
#include <ErrorHandlerDll/LinuxStructuredException.h>

#include <atomic>
#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>

constexpr std::size_t kSignalStackSize = 1 << 20; // under a sanitizer the dump needs much
constexpr int kMaxThreads = 16;

enum class Way
{
    JUMP,             // the library handles the fault in the signal handler, which is left by siglongjmp
    JUMP_THEN_HANDLE, // left by siglongjmp first
    THROW,            // thrown out of the handler
    RETURN,           // the handler returns to a function that throws
    END,              // the handler ends the process
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

// judge.py reads the same fields.
struct Record
{
    std::atomic<std::int32_t> dumpCount;
    std::atomic<std::int32_t> stateChanges; // signal mask, alternate stack, errno or use of the heap in a dump
    std::int64_t slowestDumpNs;
    std::int64_t modules;                          // loaded at least
    std::int64_t steps;                            // instructions of the call that was stepped through
    std::int64_t printed;                          // lines given to stdio
    std::atomic<std::int64_t> lines[kMaxThreads];  // whose calls have returned
    std::atomic<std::int64_t> before[kMaxThreads]; // the same before the fault that ends the process
    DumpRecord dumps[1024];
};

// Not in thread-local storage, which would take from small stacks.
struct Thread
{
    volatile std::uintptr_t notes[4096];
    volatile int noteCount;
    volatile bool isGuarded;
    bool stopsOnFault; // plays the owner of a lock that never leaves
    bool hasGap;       // the fault is in code that notes nothing
    Way way;
    int number;
    long stepsLeft;
    int signalAfterSteps; // 0: stop for ever
    sigjmp_buf place;
    DumpRecord* dump;
    alignas(StructuredException) unsigned char pending[sizeof(StructuredException)];
};

struct Case
{
    std::string name;
    std::string strategy;
    long linesBefore; // logged before the case runs
    int number;       // of threads, or instructions
};

extern Case gCase;
extern Record* gRecord;
extern Thread gThreads[kMaxThreads];
extern constinit thread_local Thread* tThread;
extern bool gOthersCanLog; // a guard tries it after each fault
extern std::atomic<bool> gSendsIntoDumps;
extern std::atomic<int> gState;      // of what two threads agree on
extern std::atomic<int> gDumpsToEnd; // the process ends with the last of so many

bool FaultAgain();              // returns false when there is no case of that name
[[gnu::weak]] void FaultOnce(); // in one host only

// Ends the process with this status, unless the condition holds.
void Require(bool condition, int status);

std::int64_t Now();
void LogNext();
void LogNext(int writer);
void PrintNext();
[[noreturn]] void StopForEver(); // and tells by gState that it has
[[noreturn]] void End();         // all threads have logged what they will
void LetOthersLog();

// ---- Notes ----

constexpr std::uintptr_t kGap = 1; // among the notes: here lie frames that the host cannot know

void AddNote(std::uintptr_t address);
void DropNotes(int count);

// A handler calls this first: the interrupted place belongs between its own frame and what was noted before.
void NoteSignal(const ucontext_t* context, const void* returnAddress);

// ---- Threads ----

void BeginThread(int number, std::size_t signalStackSize);

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

// ---- Signals ----

// What a dump must leave as it was.
class ThreadState
{
public:
    ThreadState();
    void Compare() const; // with the state now

private:
    int m_errno = errno;
    sigset_t m_mask = {};
    stack_t m_stack = {};
};

void Install(int signal, void (*handler)(int, siginfo_t*, void*));

// ---- Faults ----

void Handle(StructuredException& exception);
StructuredException& Pending();

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
    before.Compare();
    LogNext();
    LetOthersLog();
}

using PluginStep = void (*)(void (*next)(int), int depth);
extern PluginStep gPluginStep;

// The logger reads what it is given with its section held.
inline void LogBytes(unsigned char* bytes)
{
    LogMessageAndBufferAsHex(ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, "Host - ", "bytes", bytes, 4000);
}

// Calls functions of many shapes, of the plug-in and of libc among them, and faults at depth 0.
void Descend(int depth);

inline void Fault(Way way, int depth)
{
    Guard(way, [=] { Descend(depth); });
}

#endif
