// The stacks that dumps run on: the handler's own may be an alternate one of a few kilobytes, of which the signal frame has
// taken half. Each belongs to one thread at a time, and what it is used for is told from where the thread's code runs: a
// dump that was left by a jump leaves nothing behind that a later one would take for its own.
#ifndef ERRORHANDLERDLL_CRASH_DUMPSTACK_H
#define ERRORHANDLERDLL_CRASH_DUMPSTACK_H

#include "ErrorHandlerDll/crash/Signals.h"

#include <atomic>
#include <cstdint>

namespace Crash
{

class Dump;
class Place;

class DumpStack
{
public:
    // The one that the calling code runs on; null when it runs on none.
    static DumpStack* Current() noexcept;

    // Calls body(stack) on a free stack, in place when the calling code is on one already. Meanwhile the thread has no
    // alternate stack: a nested signal would start at the top of that and overwrite the frames that wait there. What the
    // body throws passes. Async-signal-safe; takes about 300 bytes of the caller's stack.
    //   returns false when none was free for half a second; the body was not called then
    template <class Body>
    static bool Run(const Body& body)
    {
        if (DumpStack* const current = Current())
        {
            body(*current);
            return true;
        }
        return RunOnFree([](DumpStack& stack, const void* call) { (*static_cast<const Body*>(call))(stack); }, &body);
    }

    // Called at the end of a dump in a handler, with the interrupted context and a copy of it. When the handler returns, the
    // kernel sets the alternate stack that the context has: none, where the dump before was left by a jump.
    static void KeepAlternate(const ucontext_t& copy, ucontext_t* context) noexcept;

    // The stacks of other threads are free.
    static void AfterForkInChild() noexcept;

    SignalSet Mask() const noexcept { return m_mask; } // of the signals that wait
    std::uintptr_t Low() const noexcept { return m_low; }
    std::uintptr_t High() const noexcept { return m_high; }

    const Place* m_place = nullptr; // where a fault leads to
    Dump* m_dump = nullptr;

private:
    // A dump takes 48 KiB, a fault in it some more. Pages that no dump reaches cost nothing.
    static constexpr std::size_t kSize = std::size_t{96} * 1024;

    using Function = void (*)(DumpStack& stack, const void* argument);

    static bool RunOnFree(Function run, const void* argument);
    static void RunCall(void* argument);
    static DumpStack* TakeAny(std::uint32_t thread) noexcept;
    bool TryTake(std::uint32_t thread) noexcept;
    void GiveBackLeft() noexcept;
    bool HoldsCaller() const noexcept;

    std::atomic<std::uint32_t> m_owner{0};  // its thread id; 0: free
    std::atomic<std::int64_t> m_takenAt{0}; // tick count; 0: not known
    std::uintptr_t m_low = 0;               // where the dump's frames lie: [low, high)
    std::uintptr_t m_high = 0;
    SignalSet m_mask = 0;
    Function m_run = nullptr;
    const void* m_argument = nullptr;
    stack_t m_alternate = {}; // of the owner
    alignas(64) unsigned char m_memory[kSize] = {};
};

} // namespace Crash

#endif
