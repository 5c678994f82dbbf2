#include "ErrorHandlerDll/unwind/StackWalk.h"

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>
#include <sys/mman.h>
#include <thread>
#include <ucontext.h>
#include <vector>

// The sanitizers replace backtrace() by one with another frame in it.
extern "C" int __backtrace(void** frames, int capacity);

namespace
{

constexpr int kCapacity = 100;

struct Trace
{
    void* frames[kCapacity];
    int count = 0;
};

// As backtrace() counts: frame 0 lies in the caller.
__attribute__((noinline)) int WalkFromHere(void** frames, int capacity)
{
    if (capacity <= 0)
    {
        return 0;
    }
    void* own[kCapacity + 1];
    Unwind::FrameRegisters here;
    Unwind::CaptureRegisters(here);
    const int count = Unwind::WalkStack(here, own, capacity + 1).count - 1;
    std::copy(own + 1, own + 1 + count, frames);
    return count;
}

// What a signal handler returns to. A walk that starts there goes on in the context above it.
constexpr unsigned char kTrampoline[] = {0x48, 0xc7, 0xc0, 0x0f, 0x00, 0x00, 0x00, 0x0f, 0x05};

int WalkFrom(const ucontext_t* context, void** frames, int capacity)
{
    void* own[kCapacity + 1];
    Unwind::FrameRegisters trampoline;
    trampoline.Set(Unwind::FrameRegisters::kProgramCounter, reinterpret_cast<std::uint64_t>(kTrampoline));
    trampoline.Set(Unwind::FrameRegisters::kStackPointer, reinterpret_cast<std::uint64_t>(context));
    const int count = Unwind::WalkStack(trampoline, own, capacity + 1).count - 1;
    std::copy(own + 1, own + 1 + count, frames);
    return count;
}

using Walk = int (*)(void**, int);
const volatile Walk gWalks[2] = {__backtrace, WalkFromHere};

// One and the same call calls both, so that even frame 0 must be equal.
__attribute__((noinline)) void CaptureBoth(Trace (&traces)[2], int capacity)
{
    for (int i = 0; i < 2; ++i)
    {
        asm volatile("" : "+r"(i)); // or the compiler would make two calls of the loop
        traces[i].count = gWalks[i](traces[i].frames, capacity);
    }
}

bool AreEqual(const Trace& left, const Trace& right, int offset = 0)
{
    return left.count - offset == right.count && std::equal(right.frames, right.frames + right.count, left.frames + offset);
}

std::string Print(const Trace& trace)
{
    return testing::PrintToString(std::vector<void*>(trace.frames, trace.frames + trace.count));
}

int gCompared;

__attribute__((noinline)) void Compare(int capacity)
{
    Trace traces[2];
    errno = ERANGE;
    CaptureBoth(traces, capacity);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_TRUE(AreEqual(traces[0], traces[1])) << "backtrace " << Print(traces[0]) << "\nwalk " << Print(traces[1]);
    EXPECT_GE(traces[0].count, std::min(capacity, 3));
    ++gCompared;
}

__attribute__((noinline)) void CompareHere()
{
    Compare(kCapacity);
    asm volatile(""); // no tail call: the frame must stay
}

__attribute__((noinline)) void Recurse(int depth)
{
    depth > 0 ? Recurse(depth - 1) : CompareHere();
    asm volatile("");
}

// A frame that is aligned beyond what the caller gives, of a size known only at run time.
__attribute__((noinline)) void Realign(std::size_t size)
{
    alignas(128) volatile char aligned[128];
    volatile char* dynamic = static_cast<volatile char*>(__builtin_alloca(size));
    aligned[0] = 1;
    dynamic[0] = 1;
    CompareHere();
    dynamic[size - 1] = aligned[1];
}

void RaiseInHandler()
{
    std::signal(SIGUSR1, [](int) { CompareHere(); });
    std::signal(SIGUSR2, [](int) { std::raise(SIGUSR1); });
    std::raise(SIGUSR2);
    std::signal(SIGUSR1, SIG_DFL);
    std::signal(SIGUSR2, SIG_DFL);
}

extern "C" void CallOnStack(void* stackEnd, void (*run)()); // with tables that lead back
extern "C" const char gAfterCall[];
asm(R"(
    .pushsection .text
CallOnStack:
    .cfi_startproc
    pushq %rbp
    .cfi_def_cfa_offset 16
    .cfi_offset %rbp, -16
    movq %rsp, %rbp
    .cfi_def_cfa_register %rbp
    movq %rdi, %rsp
    callq *%rsi
gAfterCall:
    leaveq
    .cfi_def_cfa %rsp, 8
    retq
    .cfi_endproc
    .popsection
)");

constexpr std::size_t kOwnStack = std::size_t{256} * 1024;

void RunOnOwnStacks()
{
    alignas(16) char above[kOwnStack];
    const auto below = std::make_unique<char[]>(kOwnStack);
    CallOnStack(above + kOwnStack, CompareHere);
    CallOnStack(below.get() + kOwnStack, CompareHere);
}

ucontext_t gResumer;

void RunInCoroutine()
{
    const auto stack = std::make_unique<char[]>(kOwnStack);
    ucontext_t coroutine;
    getcontext(&coroutine);
    coroutine.uc_stack.ss_sp = stack.get();
    coroutine.uc_stack.ss_size = kOwnStack;
    coroutine.uc_link = &gResumer;
    makecontext(&coroutine, CompareHere, 0);
    swapcontext(&gResumer, &coroutine);
}

int CompareInSort(const void*, const void*)
{
    CompareHere();
    return 0;
}

void SortInAnotherNameSpace()
{
    void* const library = dlmopen(LM_ID_NEWLM, "libc.so.6", RTLD_NOW);
    ASSERT_NE(library, nullptr) << dlerror();
    int numbers[2] = {};
    reinterpret_cast<decltype(&std::qsort)>(dlsym(library, "qsort"))(numbers, 2, sizeof numbers[0], CompareInSort);
    dlclose(library);
}

TEST(StackWalk, EqualsBacktrace)
{
    const struct
    {
        void (*run)();
        const char* name;
    } cases[] = {
        {[] { Recurse(300); }, "more frames than fit"},
        {[] { Compare(2); }, "room for two"},
        {[] { Compare(0); }, "no room"},
        {[] { Realign(300); }, "realigned frame"},
        {RaiseInHandler, "nested signal handlers"},
        {RunOnOwnStacks, "stacks of the program's own"},
        {RunInCoroutine, "coroutine"},
        {SortInAnotherNameSpace, "object of another name space"},
    };
    for (const auto& row : cases)
    {
        SCOPED_TRACE(row.name);
        const int before = gCompared;
        row.run();
        EXPECT_GT(gCompared, before);
    }
}

// These calls are interrupted at instructions all over: prologues, epilogues, the linker's lazy binding, the kernel's page.

constexpr int kEveryStep = 200; // compared one by one; of what follows one in kStride, or the test would take minutes
constexpr int kStride = 97;

volatile std::sig_atomic_t gStepping; // ends at the first difference, whose traces then stay
volatile std::sig_atomic_t gSteps;
Trace gAtStep[2];
Trace gInterrupted;

void CompareAtStep(int, siginfo_t*, void* data)
{
    auto* const context = static_cast<ucontext_t*>(data);
    gSteps = gSteps + 1;
    const auto* const code = reinterpret_cast<const unsigned char*>(context->uc_mcontext.gregs[REG_RIP]);
    const bool jumps = code[0] == 0xff && (code[1] & 0xf8) == 0xe0; // through a register: an unwinder's last instruction
    if (gSteps <= kEveryStep || gSteps % kStride == 0 || jumps)
    {
        CaptureBoth(gAtStep, kCapacity);
        gInterrupted.count = WalkFrom(context, gInterrupted.frames, kCapacity);
        const int handlerFrames = 3; // CaptureBoth, this function, the trampoline
        if (!AreEqual(gAtStep[0], gAtStep[1]) || !AreEqual(gAtStep[0], gInterrupted, handlerFrames))
        {
            gStepping = 0;
        }
    }
    constexpr greg_t kTrapFlag = 0x100;
    auto& flags = context->uc_mcontext.gregs[REG_EFL];
    flags = gStepping != 0 ? flags | kTrapFlag : flags & ~kTrapFlag;
}

void StepThrough(void (*run)(), int flags)
{
    struct sigaction action = {};
    action.sa_sigaction = CompareAtStep;
    action.sa_flags = SA_SIGINFO | flags;
    ASSERT_EQ(sigaction(SIGTRAP, &action, nullptr), 0);
    gSteps = 0;
    gStepping = 1;
    std::raise(SIGTRAP);
    run();
    const bool areEqual = gStepping != 0;
    gStepping = 0;
    asm volatile("nop");
    std::signal(SIGTRAP, SIG_DFL);
    EXPECT_GT(gSteps, 50);
    EXPECT_TRUE(areEqual) << "at step " << gSteps << "\nbacktrace " << Print(gAtStep[0]) << "\nwalk " << Print(gAtStep[1])
                          << "\ninterrupted " << Print(gInterrupted);
}

void StepFormatting()
{
    char text[64];
    std::snprintf(text, sizeof(text), "%d %s %.2f", 5, "five", 5.0);
}

void StepClock()
{
    timespec time;
    clock_gettime(CLOCK_REALTIME, &time);
    std::time(nullptr);
}

void StepException()
{
    try
    {
        throw 5;
    }
    catch (int)
    {
    }
}

TEST(StackWalk, EqualsBacktraceAtEveryInstruction)
{
    Trace warmUp[2];
    CaptureBoth(warmUp, kCapacity); // the first backtrace() of a process loads its unwinder
    for (void (*run)() : {StepFormatting, StepClock, StepException})
        std::thread(StepThrough, run, 0).join(); // a thread's stack is short: fewer frames to compare
}

void StepOnAlternateStack(unsigned char* memory, std::size_t size)
{
    stack_t stack = {};
    stack.ss_sp = memory;
    stack.ss_size = size;
    ASSERT_EQ(sigaltstack(&stack, nullptr), 0);
    StepThrough(StepFormatting, SA_ONSTACK);
    stack.ss_flags = SS_DISABLE;
    sigaltstack(&stack, nullptr);
}

TEST(StackWalk, EqualsBacktraceOnAnAlternateStack)
{
    // Above the stack of the thread, where the caller of the trampoline is found further down, and below.
    unsigned char above[std::size_t{512} * 1024];
    const auto below = std::make_unique<unsigned char[]>(sizeof(above));
    for (unsigned char* memory : {above, below.get()})
    {
        std::thread(StepOnAlternateStack, memory, sizeof(above)).join();
    }
}

// ---- What the walk tells besides: the signal handler that it met, and whether it came to the end ----

Unwind::WalkResult gAnswer;
// In this order: an answer with frames must equal the one without.
__attribute__((noinline)) void Answer()
{
    void* frames[kCapacity];
    Unwind::FrameRegisters here;
    Unwind::CaptureRegisters(here);
    const Unwind::WalkResult stored = Unwind::WalkStack(here, frames, kCapacity);
    gAnswer = Unwind::WalkStack(here, nullptr, 0);
    EXPECT_EQ(gAnswer.count, 0);
    EXPECT_GT(stored.count, 2);
    EXPECT_EQ(stored.signalFrames, gAnswer.signalFrames);
    EXPECT_EQ(stored.reachedEnd, gAnswer.reachedEnd);
}

__attribute__((noinline)) void AnswerBelow(int depth)
{
    depth > 0 ? AnswerBelow(depth - 1) : Answer();
    asm volatile("");
}

sigjmp_buf gBeforeSignal;
void (*gInHandler)();

void RaiseAndRun(void (*run)(), int flags)
{
    struct sigaction action = {};
    action.sa_handler = [](int)
    {
        gInHandler();
    };
    action.sa_flags = SA_NODEFER | flags;
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    gInHandler = run;
    int (*const volatile raise)(int) = std::raise; // which may throw when the handler does
    raise(SIGUSR1);
}

TEST(StackWalk, TellsOfTheSignalHandlerThatItMet)
{
    struct Row
    {
        const char* name;
        void (*run)();
        int handlers;
    };
    const Row rows[] = {
        {"no signal", Answer, 0},
        {"no signal, deep", [] { AnswerBelow(5000); }, 0},
        {"handler", [] { RaiseAndRun(Answer, 0); }, 1},
        {"deep in a handler", [] { RaiseAndRun([] { AnswerBelow(5000); }, 0); }, 1},
        {"handler in a handler", [] { RaiseAndRun([] { RaiseAndRun(Answer, 0); }, 0); }, 2},
        {"alternate stack", [] { RaiseAndRun(Answer, SA_ONSTACK); }, 1},
        {"deep on the alternate stack", [] { RaiseAndRun([] { AnswerBelow(5000); }, SA_ONSTACK); }, 1},
        {"after a handler", [] { RaiseAndRun([] {}, 0), Answer(); }, 0},
        {"catch clause after a throw out of a handler",
         []
         {
             try
             {
                 RaiseAndRun([] { throw 5; }, 0);
             }
             catch (int)
             {
                 Answer();
             }
         },
         0},
        {"the same from the alternate stack",
         []
         {
             try
             {
                 RaiseAndRun([] { AnswerBelow(100), throw 5; }, SA_ONSTACK);
             }
             catch (int)
             {
                 Answer();
             }
         },
         0},
        {"catch clause in a handler",
         []
         {
             const auto run = []
             {
                 try
                 {
                     throw 5;
                 }
                 catch (int)
                 {
                     Answer();
                 }
             };
             RaiseAndRun(run, 0);
         },
         1},
        {"after a jump out of a handler",
         []
         {
             if (sigsetjmp(gBeforeSignal, 1) == 0)
             {
                 RaiseAndRun([] { siglongjmp(gBeforeSignal, 1); }, SA_ONSTACK);
             }
             Answer();
         },
         0},
    };
    std::vector<unsigned char> memory(std::size_t{2048} * 1024);
    stack_t stack = {};
    stack.ss_sp = memory.data();
    stack.ss_size = memory.size();
    stack_t before;
    ASSERT_EQ(sigaltstack(&stack, &before), 0);
    for (const Row& row : rows)
    {
        row.run();
        EXPECT_TRUE(gAnswer.reachedEnd) << row.name;
        EXPECT_EQ(gAnswer.signalFrames, row.handlers) << row.name;
    }
    sigaltstack(&before, nullptr);
}

// push %rbp; mov %rsp, %rbp; call *%rdi; pop %rbp; ret
constexpr unsigned char kGeneratedCode[] = {0x55, 0x48, 0x89, 0xe5, 0xff, 0xd7, 0x5d, 0xc3};

Trace gGenerated;

void CaptureGenerated()
{
    gGenerated.count = WalkFromHere(gGenerated.frames, kCapacity);
    Answer();
}

TEST(StackWalk, FollowsFramePointersThroughGeneratedCode)
{
    void* code = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(code, MAP_FAILED);
    std::memcpy(code, kGeneratedCode, sizeof(kGeneratedCode));
    ASSERT_EQ(mprotect(code, 4096, PROT_READ | PROT_EXEC), 0);
    auto* call = reinterpret_cast<void (*)(void (*)())>(code);
    Trace direct;
    direct.count = WalkFromHere(direct.frames, kCapacity);
    call(CaptureGenerated);
    // Two frames more: CaptureGenerated and the generated code.
    ASSERT_EQ(gGenerated.count, direct.count + 2) << Print(gGenerated) << "\ndirect" << Print(direct);
    EXPECT_EQ(gGenerated.frames[1], static_cast<char*>(code) + 6);
    EXPECT_FALSE(gAnswer.reachedEnd) << "a frame pointer is a guess";
    EXPECT_TRUE(std::equal(direct.frames + 1, direct.frames + direct.count, gGenerated.frames + 3));
    munmap(code, 4096);
}

// A chain of frames in a stack made by hand, each found by the frame pointer that the one before has saved.
TEST(StackWalk, FollowsOtherStacksButNeverBack)
{
    constexpr std::size_t kAll = 0;
    std::vector<std::size_t> manySwitches;
    for (std::size_t i = 20000; i > 0; i -= 1000)
        manySwitches.push_back(i);
    const struct
    {
        const char* name;
        std::vector<std::size_t> frames; // positions in words, from the stack pointer of the first on
        std::size_t count;
        std::uint64_t beyondCall = 0; // where the frames return to
    } rows[] = {
        {"one stack", {2000, 2010, 2020}, kAll},
        {"a stack above", {2000, 2010, 9000, 9010}, kAll},
        {"a stack below", {2000, 2010, 100, 110}, kAll},
        {"below, then back above", {2000, 2010, 100, 110, 9000}, kAll},
        {"back to a stack that was left", {2000, 2010, 100, 2004}, 3},
        {"back to the frame before", {2000, 2010, 2020, 2010}, 3},
        {"the same frame", {2000, 2010, 2010}, 2},
        {"what returned calls have left", {2000, 2010, 1980, 1990}, 2},
        {"a stack below, to what is no return address", {2000, 2010, 100, 110}, 2, 1},
        {"switches without end", manySwitches, 16},
    };
    const auto afterCall = reinterpret_cast<std::uint64_t>(gAfterCall);
    for (const auto& row : rows)
    {
        std::vector<std::uint64_t> stack(21000);
        const auto addressOf = [&](std::size_t index)
        {
            return reinterpret_cast<std::uint64_t>(&stack[row.frames[index]]);
        };
        for (std::size_t i = row.frames.size() - 1; i > 0; --i)
        {
            const bool isLast = i + 1 == row.frames.size();
            stack[row.frames[i]] = isLast ? 0 : addressOf(i + 1);
            stack[row.frames[i] + 1] = isLast ? 0 : afterCall + row.beyondCall;
        }
        Unwind::FrameRegisters start;
        start.Set(Unwind::FrameRegisters::kProgramCounter, afterCall);
        start.Set(Unwind::FrameRegisters::kStackPointer, addressOf(0));
        start.Set(Unwind::FrameRegisters::kBasePointer, addressOf(1));
        void* frames[kCapacity];
        const Unwind::WalkResult result = Unwind::WalkStack(start, frames, kCapacity);
        EXPECT_EQ(static_cast<std::size_t>(result.count), row.count == kAll ? row.frames.size() - 1 : row.count) << row.name;
        EXPECT_EQ(result.reachedEnd, row.count == kAll) << row.name;
    }
}

TEST(StackWalk, EndsOnDamagedStacks)
{
    Trace here;
    here.count = WalkFromHere(here.frames, kCapacity);
    std::vector<std::uint64_t> stack(4096);
    const auto bottom = reinterpret_cast<std::uint64_t>(stack.data());
    std::mt19937_64 random(1);
    std::uint64_t stackPointers[] = {
        0, 8, bottom, bottom + 3, ~std::uint64_t{0}, ~std::uint64_t{0} - 7, std::uint64_t{1} << 47};
    for (int round = 0; round < 500; ++round)
    {
        // Words that lead on: code, the stack itself, or anything.
        for (auto& word : stack)
        {
            const std::uint64_t code =
                reinterpret_cast<std::uint64_t>(here.frames[random() % static_cast<unsigned>(here.count)]);
            const std::uint64_t choices[] = {code, code + random() % 4096, bottom + random() % 32768 / 8 * 8, random(), 0};
            word = choices[random() % 5];
        }
        ucontext_t context = {};
        for (auto& value : context.uc_mcontext.gregs)
            value = static_cast<greg_t>(stack[random() % stack.size()]);
        context.uc_mcontext.gregs[REG_RSP] =
            static_cast<greg_t>(round % 4 == 0 ? stackPointers[random() % 7] : bottom + random() % 4096 * 8);
        Trace trace;
        trace.count = WalkFrom(&context, trace.frames, kCapacity);
        ASSERT_GE(trace.count, 1);
        ASSERT_LE(trace.count, kCapacity);
        ASSERT_EQ(trace.frames[0], reinterpret_cast<void*>(context.uc_mcontext.gregs[REG_RIP]));
    }
    Trace none;
    EXPECT_EQ(WalkFrom(reinterpret_cast<const ucontext_t*>(16), none.frames, kCapacity), 0);
}

} // namespace
