#include "ErrorHandlerDll/crash/DumpStack.h"

#include "ErrorHandlerDll/unwind/SystemCall.h"

#include <atomic>
#include <cstddef>

namespace Crash
{
using namespace Unwind;

namespace
{

constexpr std::size_t kStackSize = std::size_t{256} * 1024; // pages that no dump reaches cost nothing
constexpr int kStackCount = 2;                              // one dump at a time, and one that could not wait for it

#ifdef __SANITIZE_ADDRESS__
constexpr int kFirstStack = kStackCount; // none: it would have to be told of each jump between stacks
#else
constexpr int kFirstStack = 0;
#endif

struct DumpStack
{
    alignas(64) unsigned char bytes[kStackSize];
};

DumpStack gStacks[kStackCount];
constinit std::atomic<bool> gIsInUse[kStackCount] = {};

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

struct Call
{
    void (*run)(const void*);
    const void* argument;
    SignalSet mask;
};

// Without the alternate stack, for a scope. Neither set nor unset while the thread is on it, so no signal may come in
// between.
class NoAlternateStack
{
public:
    explicit NoAlternateStack(const SignalSet& mask) noexcept
    {
        stack_t none = {};
        none.ss_flags = SS_DISABLE;
        SystemCall(SYS_sigaltstack, ToArgument(&none), ToArgument(&m_alternate));
        SetMask(mask);
    }
    ~NoAlternateStack()
    {
        SetMask(kAllSignals);
        SystemCall(SYS_sigaltstack, ToArgument(&m_alternate), 0);
    }
    NoAlternateStack(const NoAlternateStack&) = delete;
    NoAlternateStack& operator=(const NoAlternateStack&) = delete;

private:
    stack_t m_alternate = {};
};

void RunCall(void* argument)
{
    const Call& call = *static_cast<const Call*>(argument);
    const NoAlternateStack scope(call.mask);
    call.run(call.argument);
}

class StackOfOurs
{
public:
    StackOfOurs() noexcept
    {
        while (m_index < kStackCount && gIsInUse[m_index].exchange(true, std::memory_order_acquire))
        {
            ++m_index;
        }
    }
    ~StackOfOurs()
    {
        if (IsFree())
        {
            gIsInUse[m_index].store(false, std::memory_order_release);
        }
    }
    StackOfOurs(const StackOfOurs&) = delete;
    StackOfOurs& operator=(const StackOfOurs&) = delete;

    bool IsFree() const noexcept { return m_index < kStackCount; }
    void* End() const noexcept { return gStacks[m_index].bytes + kStackSize; }

private:
    int m_index = kFirstStack;
};

class MaskKeeper
{
public:
    MaskKeeper() noexcept : m_mask(SetMask(kAllSignals)) {}
    ~MaskKeeper() { SetMask(m_mask); }
    MaskKeeper(const MaskKeeper&) = delete;
    MaskKeeper& operator=(const MaskKeeper&) = delete;
    SignalSet Mask() const noexcept { return m_mask; }

private:
    const SignalSet m_mask;
};

} // namespace

void RunOnDumpStack(void (*run)(const void*), const void* argument)
{
    const StackOfOurs stack;
    if (!stack.IsFree())
    {
        run(argument);
        return;
    }
    const MaskKeeper mask;
    Call call = {run, argument, mask.Mask()};
    CallOnStack(stack.End(), RunCall, &call);
}

void FreeDumpStacks() noexcept
{
    for (std::atomic<bool>& isInUse : gIsInUse)
    {
        isInUse.store(false, std::memory_order_relaxed);
    }
}

} // namespace Crash
