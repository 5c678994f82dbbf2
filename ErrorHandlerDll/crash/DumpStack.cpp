#include "ErrorHandlerDll/crash/DumpStack.h"

#include "ErrorHandlerDll/unwind/SystemCall.h"
#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <atomic>
#include <cerrno>
#include <ctime>
#include <iterator>
#include <unistd.h>

namespace Crash
{
using namespace Unwind;

namespace
{

constexpr std::size_t kStackSize = std::size_t{256} * 1024; // pages that no dump reaches cost nothing
constexpr int kStackCount = 4;                              // a dump holds one for milliseconds, as a rule
constexpr int kMaxWaitMs = 500;

#ifdef __SANITIZE_ADDRESS__
constexpr bool kSwitchesStack = false; // the sanitizer would have to be told of each switch, and of each jump
#else
constexpr bool kSwitchesStack = true;
#endif

struct Memory
{
    alignas(64) unsigned char bytes[kStackSize];
};

Memory gMemory[kStackCount];
constinit DumpStack gStacks[kStackCount] = {};
constinit std::atomic<std::uint32_t> gOwners[kStackCount] = {}; // thread ids; 0: free

std::uintptr_t CurrentAddress() noexcept
{
    return reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
}

bool IsThreadGone(std::uint32_t thread) noexcept
{
    return SystemCall(SYS_tgkill, getpid(), static_cast<long>(thread), 0) == -ESRCH;
}

bool TryTake(std::atomic<std::uint32_t>& owner, std::uint32_t self) noexcept
{
    std::uint32_t seen = owner.load(std::memory_order_relaxed);
    return (seen == 0 || IsThreadGone(seen)) && owner.compare_exchange_strong(seen, self, std::memory_order_acquire);
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

class MaskScope
{
public:
    MaskScope() noexcept : m_mask(SetMask(kAllSignals)) {}
    ~MaskScope() { SetMask(m_mask); }
    MaskScope(const MaskScope&) = delete;
    MaskScope& operator=(const MaskScope&) = delete;
    SignalSet Mask() const noexcept { return m_mask; }

private:
    const SignalSet m_mask;
};

} // namespace

struct DumpStack::Call
{
    DumpStack& stack;
    Function run;
    const void* argument;
};

// Neither set nor unset while the thread is on it, and so that no signal comes in between.
class DumpStack::AlternateStackOff
{
public:
    explicit AlternateStackOff(DumpStack& stack) noexcept : m_stack(stack)
    {
        SystemCall(SYS_sigaltstack, 0, ToArgument(&m_stack.m_alternate));
        stack_t none = {};
        none.ss_flags = SS_DISABLE;
        SystemCall(SYS_sigaltstack, ToArgument(&none)); // refused where the dump stays on it
        SetMask(m_stack.m_mask);
    }
    ~AlternateStackOff()
    {
        SetMask(kAllSignals);
        SystemCall(SYS_sigaltstack, ToArgument(&m_stack.m_alternate));
    }
    AlternateStackOff(const AlternateStackOff&) = delete;
    AlternateStackOff& operator=(const AlternateStackOff&) = delete;

private:
    DumpStack& m_stack;
};

// Owns a stack of gStacks for its scope. All signals wait meanwhile, but in RunCall: a handler that dumps must find this
// thread on the stack or without one.
class DumpStack::OwnerScope
{
public:
    OwnerScope() noexcept
    {
        const std::uint32_t self = ZelvoWinAPI::GetCurrentThreadId();
        GiveBackLeft(self);
        const std::int64_t end = ZelvoWinAPI::GetTickCount64() + kMaxWaitMs;
        while (!TryTakeAny(self) && ZelvoWinAPI::GetTickCount64() < end)
        {
            const timespec interval = {0, 1000000};
            SystemCall(SYS_nanosleep, ToArgument(&interval));
        }
    }
    ~OwnerScope()
    {
        if (IsTaken())
        {
            Stack().m_high = 0;
            gOwners[m_index].store(0, std::memory_order_release);
        }
    }
    OwnerScope(const OwnerScope&) = delete;
    OwnerScope& operator=(const OwnerScope&) = delete;

    bool IsTaken() const noexcept { return m_index < kStackCount; }
    DumpStack& Stack() const noexcept { return gStacks[m_index]; }
    unsigned char* Start() const noexcept { return gMemory[m_index].bytes; }

private:
    // This thread does not run on a stack that it owns: then it has left that by a jump.
    static void GiveBackLeft(std::uint32_t self) noexcept
    {
        for (int i = 0; i < kStackCount; ++i)
        {
            if (gOwners[i].load(std::memory_order_relaxed) == self)
            {
                stack_t current = {};
                SystemCall(SYS_sigaltstack, 0, ToArgument(&current));
                if ((current.ss_flags & SS_DISABLE) != 0) // else the host has set one since
                {
                    SystemCall(SYS_sigaltstack, ToArgument(&gStacks[i].m_alternate));
                }
                gOwners[i].store(0, std::memory_order_release);
            }
        }
    }

    bool TryTakeAny(std::uint32_t self) noexcept
    {
        m_index = 0;
        while (m_index < kStackCount && !TryTake(gOwners[m_index], self))
        {
            ++m_index;
        }
        return IsTaken();
    }

    int m_index = kStackCount;
};

DumpStack* DumpStack::Current() noexcept
{
    const std::uint32_t self = ZelvoWinAPI::GetCurrentThreadId();
    const std::uintptr_t here = CurrentAddress();
    for (int i = 0; i < kStackCount; ++i)
    {
        if (gOwners[i].load(std::memory_order_relaxed) == self && here >= gStacks[i].m_low && here < gStacks[i].m_high)
        {
            return &gStacks[i];
        }
    }
    return nullptr;
}

void DumpStack::RunCall(void* argument)
{
    const Call& call = *static_cast<const Call*>(argument);
    const AlternateStackOff scope(call.stack);
    call.run(call.stack, call.argument);
}

bool DumpStack::RunOnFree(Function run, const void* argument)
{
    const MaskScope mask;
    const OwnerScope owner;
    if (!owner.IsTaken())
    {
        return false;
    }
    DumpStack& stack = owner.Stack();
    stack.m_place = nullptr;
    stack.m_dump = nullptr;
    stack.m_mask = mask.Mask();
    Call call = {stack, run, argument};
    if (kSwitchesStack)
    {
        stack.m_low = reinterpret_cast<std::uintptr_t>(owner.Start());
        stack.m_high = stack.m_low + kStackSize;
        CallOnStack(owner.Start() + kStackSize, RunCall, &call);
    }
    else
    {
        stack.m_high = CurrentAddress();
        stack.m_low = stack.m_high - kStackSize;
        RunCall(&call);
    }
    return true;
}

void DumpStack::AfterForkInChild() noexcept
{
    for (std::size_t i = 0; i < std::size(gStacks); ++i)
    {
        const std::uintptr_t here = CurrentAddress();
        const bool isOurs = here >= gStacks[i].m_low && here < gStacks[i].m_high;
        gOwners[i].store(isOurs ? ZelvoWinAPI::GetCurrentThreadId() : 0, std::memory_order_relaxed);
    }
}

} // namespace Crash
