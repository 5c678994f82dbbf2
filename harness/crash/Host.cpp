// The process that crashes: host CASE append|overwrite|rotate LINES NUMBER
#include "Host.h"

#include "support/Allocations.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

Case gCase;
Record* gRecord = nullptr;
Thread gThreads[kMaxThreads];
constinit thread_local Thread* tThread = nullptr;
bool gOthersCanLog = true;
std::atomic<bool> gSendsIntoDumps{false};
std::atomic<int> gState{0};
std::atomic<int> gDumpsToEnd{1};
PluginStep gPluginStep = nullptr;

namespace
{

constexpr int kPrintedBefore = 10;
int gSecondsToLog = 1; // for a thread that starts after a fault

} // namespace

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

void LogNext(int writer)
{
    const long long line = gRecord->lines[writer] + 1;
    if (LogFormatted(ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, "Host - ", "worker %d line %lld.", writer, line))
    {
        gRecord->lines[writer] = line;
    }
}

void LogNext()
{
    LogNext(tThread->number);
}

void PrintNext()
{
    // 64 bytes, which divide stdio's buffer: what other threads print never cuts a line in two.
    std::printf("printed %55lld\n", static_cast<long long>(++gRecord->printed));
}

[[noreturn]] void StopForEver()
{
    for (gState = 1;;)
    {
        pause();
    }
}

namespace
{

void NoteLines()
{
    for (int i = 0; i < kMaxThreads; ++i)
    {
        gRecord->before[i] = gRecord->lines[i].load();
    }
}

} // namespace

[[noreturn]] void End()
{
    NoteLines();
    gCase.name == "fifo" ? _exit(0) : std::exit(0);
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

void BeginThread(int number, std::size_t signalStackSize)
{
    tThread = &gThreads[number];
    tThread->number = number;
    tThread->noteCount = 0;
    tThread->way = Way::END;
    if (signalStackSize != 0)
    {
        const std::size_t mapped = (signalStackSize + 8191) & ~std::size_t{4095}; // a page without access below
        auto* const memory = static_cast<char*>(mmap(nullptr, mapped, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(memory + 4096, mapped - 4096, PROT_READ | PROT_WRITE);
        const stack_t stack = {memory + mapped - signalStackSize, 0, signalStackSize};
        sigaltstack(&stack, nullptr);
    }
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

// ---- Signals ----------------------------------------------------------------------------------------------------------

ThreadState::ThreadState()
{
    pthread_sigmask(SIG_SETMASK, nullptr, &m_mask);
    sigaltstack(nullptr, &m_stack);
}

void ThreadState::Compare() const
{
    const ThreadState now;
    if (m_errno != now.m_errno || std::memcmp(&m_mask, &now.m_mask, 8) != 0 || m_stack.ss_sp != now.m_stack.ss_sp ||
        m_stack.ss_flags != now.m_stack.ss_flags)
    {
        ++gRecord->stateChanges;
    }
}

namespace
{

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

[[noreturn, gnu::force_align_arg_pointer]] void ThrowPending()
{
    throw StructuredException(Pending());
}

[[noreturn]] void HandleAndEnd(StructuredException& exception)
{
    if (gCase.name == "killed-after-first")
    {
        kill(getpid(), SIGKILL);
    }
    Handle(exception);
    if (--gDumpsToEnd > 0)
    {
        StopForEver();
    }
    _exit(0);
}

// As if the interrupted code had called a function. The unwinder looks up the byte before a return address.
void ReturnToThrow(greg_t* registers)
{
    registers[REG_RSP] -= static_cast<greg_t>(sizeof(void*));
    *reinterpret_cast<greg_t*>(registers[REG_RSP]) = registers[REG_RIP] + 1;
    registers[REG_RIP] = reinterpret_cast<greg_t>(&ThrowPending);
}

} // namespace

StructuredException& Pending()
{
    return *reinterpret_cast<StructuredException*>(tThread->pending);
}

void Handle(StructuredException& exception)
{
    ExceptionHandler::HandleStructuredException("Host::HandleFatalSignal", exception, false);
    tThread->dump->written = 2;
}

namespace
{

[[gnu::noinline]] void HandleFatalSignal(int signal, siginfo_t* info, void* argument)
{
    if (tThread->stopsOnFault)
    {
        StopForEver();
    }
    auto* const context = static_cast<ucontext_t*>(argument);
    const int notesBefore = tThread->noteCount;
    NoteSignal(context, __builtin_return_address(0));
    DumpRecord& dump = RecordDump(context);
    const bool isRequest = info->si_code <= 0 && tThread->way != Way::END; // sent
    if (tThread->way == Way::END)
    {
        NoteLines();
    }
    const ThreadState before;
    const long allocations = Allocations::tCount;
    const std::int64_t start = Now();
    StructuredException exception(signal, context, info);
    gRecord->slowestDumpNs = std::max(gRecord->slowestDumpNs, Now() - start);
    gRecord->stateChanges += Allocations::tCount != allocations ? 1 : 0;
    before.Compare();
    dump.written = 1;
    tThread->dump = &dump;
    if (isRequest)
    {
        tThread->noteCount = notesBefore;
        return;
    }
    switch (tThread->way)
    {
    case Way::END:
        HandleAndEnd(exception);
    case Way::THROW:
        throw StructuredException(exception);
    case Way::JUMP:
        Handle(exception);
        siglongjmp(tThread->place, 1);
    case Way::JUMP_THEN_HANDLE:
        std::memcpy(tThread->pending, &exception, sizeof exception);
        siglongjmp(tThread->place, 1);
    case Way::RETURN:
        std::memcpy(tThread->pending, &exception, sizeof exception);
        ReturnToThrow(context->uc_mcontext.gregs);
    }
}

} // namespace

void Install(int signal, void (*handler)(int, siginfo_t*, void*))
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

// ---- Where it faults --------------------------------------------------------------------------------------------------

namespace
{

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

int CountModule(dl_phdr_info*, std::size_t, void*)
{
    ++gRecord->modules;
    return 0;
}

} // namespace

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

int main(int argc, char** argv)
{
    Require(argc == 5, 2);
    gCase = {argv[1], argv[2], std::atol(argv[3]), std::atoi(argv[4])};
    const int descriptor = open("record", O_RDWR | O_CLOEXEC);
    gRecord = static_cast<Record*>(mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0));
    Require(gRecord != MAP_FAILED, 2);
    close(descriptor);
    gSecondsToLog = std::getenv("SLOW") != nullptr ? 30 : 1;
    BeginThread(0, kSignalStackSize);
    AddNote(reinterpret_cast<std::uintptr_t>(__builtin_return_address(0)));
    for (const int signal : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGUSR1})
    {
        Install(signal, HandleFatalSignal);
    }
    gPluginStep = reinterpret_cast<PluginStep>(dlsym(dlopen("./plugin.so", RTLD_NOW), "PluginStep"));
    dl_iterate_phdr(CountModule, nullptr);

    LoggingSettings settings = {};
    const bool isShort = gCase.name.starts_with("step"); // four lines flush, and go to the next file
    settings.flushInterval = isShort ? 3 : 100;
    settings.maxFileSize = isShort ? 300 : 12000;
    settings.strategy = gCase.strategy == "rotate"      ? LOGGING_STRATEGY_FILE_SIZE
                        : gCase.strategy == "overwrite" ? LOGGING_STRATEGY_OVERWRITE
                                                        : LOGGING_STRATEGY_APPEND;
    SetLoggingOptions(&settings);
    InitialiseLogging(true, ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, "hosta.log");
    for (long i = 0; i < gCase.linesBefore; ++i)
    {
        LogNext();
    }
    if (gCase.linesBefore != 0) // else a dump is the log's first line
    {
        LetOthersLog();
    }
    for (int i = 0; i < kPrintedBefore; ++i)
    {
        PrintNext();
    }
    if (!FaultAgain() && FaultOnce != nullptr)
    {
        FaultOnce();
    }
    End();
}
