#include "ErrorHandlerDll/crash/DumpStack.h"

#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <cerrno>
#include <unistd.h>

namespace Crash
{

namespace
{

constexpr int kMaxWaitMs = 500;
constexpr int kMaxUseMs = 10000; // far above what a dump takes: it was left by a jump, and its thread has not dumped since

#ifdef __SANITIZE_ADDRESS__
constexpr bool kSwitchesStack = false; // the sanitizer would have to be told of each switch, and of each jump
#else
constexpr bool kSwitchesStack = true;
#endif

constinit DumpStack gStacks[4] = {}; // a dump holds one for milliseconds, as a rule

std::uintptr_t CurrentAddress() noexcept
{
    return reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
}

stack_t GetAlternate() noexcept
{
    stack_t alternate = {};
    SystemCall(SYS_sigaltstack, 0, ToArgument(&alternate));
    return alternate;
}

// Debuggers, profilers and exceptions find the way back by the frame pointer.
[[gnu::naked, gnu::noinline]] void CallOnStack(void* /*stackEnd*/, void (*)(void*), void* /*argument*/)
{
    asm("pushq %rbp\n\t"
        ".cfi_def_cfa_offset 16\n\t"
        ".cfi_offset %rbp, -16\n\t"
        "movq %rsp, %rbp\n\t"
        ".cfi_def_cfa_register %rbp\n\t"
        "movq %rdi, %rsp\n\t"
        "movq %rdx, %rdi\n\t"
        "callq *%rsi\n\t"
        "leaveq\n\t"
        ".cfi_def_cfa %rsp, 8\n\t"
        "retq");
}

// Runs something at the end of a scope, however that is left.
template <class Function>
struct AtEnd
{
    explicit AtEnd(Function function) : run(function) {}
    ~AtEnd() { run(); }

    Function run;
};

} // namespace

bool DumpStack::HoldsCaller() const noexcept
{
    const std::uintptr_t here = CurrentAddress();
    return here >= m_low && here < m_high;
}

DumpStack* DumpStack::Current() noexcept
{
    const std::uint32_t self = ZelvoWinAPI::GetCurrentThreadId();
    for (DumpStack& stack : gStacks)
    {
        if (stack.m_owner.load(std::memory_order_relaxed) == self && stack.HoldsCaller())
        {
            return &stack;
        }
    }
    return nullptr;
}

// A thread that has ended has left its stack, too.
bool DumpStack::TryTake(std::uint32_t thread) noexcept
{
    std::uint32_t owner = m_owner.load(std::memory_order_relaxed);
    if (owner != 0 && SystemCall(SYS_tgkill, getpid(), static_cast<long>(owner), 0) != -ESRCH)
    {
        return false;
    }
    m_takenAt = 0; // the time of the owner before must not count for the next
    return m_owner.compare_exchange_strong(owner, thread, std::memory_order_acquire);
}

// The caller owns the stack and runs on none: it has left this one by a jump.
void DumpStack::GiveBackLeft() noexcept
{
    if ((GetAlternate().ss_flags & SS_DISABLE) != 0) // else the host has set one since
    {
        SystemCall(SYS_sigaltstack, ToArgument(&m_alternate));
    }
    m_owner.store(0, std::memory_order_release);
}

DumpStack* DumpStack::TakeAny(std::uint32_t thread) noexcept
{
    for (DumpStack& stack : gStacks)
    {
        if (stack.m_owner.load(std::memory_order_relaxed) == thread)
        {
            stack.GiveBackLeft();
        }
    }
    const std::int64_t end = ZelvoWinAPI::GetTickCount64() + kMaxWaitMs;
    do
    {
        for (DumpStack& stack : gStacks)
        {
            if (stack.TryTake(thread))
            {
                return &stack;
            }
        }
        ZelvoWinAPI::Sleep(1);
    } while (ZelvoWinAPI::GetTickCount64() < end);
    for (DumpStack& stack : gStacks)
    {
        std::uint32_t owner = stack.m_owner.load(std::memory_order_relaxed);
        const std::int64_t takenAt = stack.m_takenAt;
        if (takenAt != 0 && takenAt < end - kMaxUseMs && stack.m_owner.compare_exchange_strong(owner, thread))
        {
            return &stack;
        }
    }
    return nullptr;
}

// The alternate stack is neither set nor unset while the thread is on it, and no signal comes in between.
void DumpStack::RunCall(void* argument)
{
    DumpStack& stack = *static_cast<DumpStack*>(argument);
    stack_t none = {};
    none.ss_flags = SS_DISABLE;
    stack.m_alternate = GetAlternate();
    SystemCall(SYS_sigaltstack, ToArgument(&none)); // refused where the dump stays on it
    const AtEnd restore(
        [&stack]
        {
            SetMask(kAllSignals);
            SystemCall(SYS_sigaltstack, ToArgument(&stack.m_alternate));
        });
    SetMask(stack.m_mask);
    stack.m_run(stack, stack.m_argument);
}

// All signals wait, but in the call: a handler that dumps must find this thread on the stack or without one.
bool DumpStack::RunOnFree(Function run, const void* argument)
{
    const SignalSet mask = SetMask(kAllSignals);
    const AtEnd restoreMask([mask] { SetMask(mask); });
    DumpStack* const stack = TakeAny(ZelvoWinAPI::GetCurrentThreadId());
    if (stack == nullptr)
    {
        return false;
    }
    stack->m_place = nullptr;
    stack->m_dump = nullptr;
    stack->m_takenAt = ZelvoWinAPI::GetTickCount64();
    stack->m_mask = mask;
    stack->m_run = run;
    stack->m_argument = argument;
    stack->m_high = kSwitchesStack ? reinterpret_cast<std::uintptr_t>(stack->m_memory + kSize) : CurrentAddress();
    stack->m_low = stack->m_high - kSize;
    const AtEnd giveBack(
        [stack]
        {
            stack->m_low = stack->m_high = 0;
            stack->m_owner.store(0, std::memory_order_release);
        });
    kSwitchesStack ? CallOnStack(stack->m_memory + kSize, RunCall, stack) : RunCall(stack);
    return true;
}

void DumpStack::KeepAlternate(const ucontext_t& copy, ucontext_t* context) noexcept
{
    const stack_t alternate = GetAlternate();
    if ((copy.uc_stack.ss_flags & ~alternate.ss_flags & SS_DISABLE) != 0)
    {
        context->uc_stack = alternate;
    }
}

void DumpStack::AfterForkInChild() noexcept
{
    for (DumpStack& stack : gStacks)
    {
        stack.m_owner.store(stack.HoldsCaller() ? ZelvoWinAPI::GetCurrentThreadId() : 0, std::memory_order_relaxed);
    }
}

} // namespace Crash
