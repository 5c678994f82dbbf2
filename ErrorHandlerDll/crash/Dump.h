// "This thread dumps." All code of a crash dump runs inside Dump::Run: on a stack of the library, with the logger's section
// held and most signals blocked, and a fault in it comes back to it. Called in a signal handler it is async-signal-safe and
// waits for nobody without a limit; elsewhere it is a call like any other.
#ifndef ERRORHANDLERDLL_CRASH_DUMP_H
#define ERRORHANDLERDLL_CRASH_DUMP_H

#include "ErrorHandlerDll/crash/DumpOutput.h"
#include "ErrorHandlerDll/crash/DumpStack.h"
#include "ErrorHandlerDll/unwind/FrameRegisters.h"

#include <csetjmp>

namespace Crash
{

inline constexpr const char* kFaultInDump = "  A fault ended this part of the dump";

// Whether frames of signal handlers lie on the calling thread's stack.
struct SignalHandlers
{
    bool isInOne = true;    // unless it is certain that there is none
    bool isTooDeep = false; // handlers that fault again and again, as with a callback of the host that does
};

// The frames that a walk from `start` on finds.
struct CallStack
{
    Unwind::FrameRegisters start;
    void** frames;
    int capacity;
    int count = 0;
};

// Walks the calling thread's stack for signal handlers; from the given place on, whose frames it stores then.
SignalHandlers FindSignalHandlers(CallStack* callStack = nullptr) noexcept;

// A part of a dump that may fault, on a corrupt process. The fault reaches the host's signal handler again (when that is
// installed with SA_NODEFER), which builds another StructuredException: its constructor comes back to the innermost part.
class Place
{
public:
    Place() noexcept;
    ~Place() { m_stack.m_place = m_outer; }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    // The fault skipped the scopes that lie within, and the return of the handler that would have set the signal mask back.
    void Restore() const noexcept;

    mutable sigjmp_buf m_context;

private:
    DumpStack& m_stack;
    const Place* const m_outer;
    const bool m_isSignalSafe;
    const unsigned int m_sectionDepth;
};

// Called on the stack of a dump. Returns false when a fault ended the part.
template <class Part>
bool RunPart(const Part& part)
{
    const Place place;
    if (sigsetjmp(place.m_context, 0) != 0) // the mask is restored below: saving it takes room
    {
        place.Restore();
        return false;
    }
    part();
    return true;
}

class Dump
{
public:
    // The dump that the calling code belongs to; null when it belongs to none.
    static Dump* Current() noexcept;

    // Runs body() as a dump of this thread; within another one, as a piece of that. What the body throws passes.
    //   endsCall  the code that was interrupted by a hardware fault never goes on
    //   returns   false when all stacks for dumps are in use, or the handlers on this thread's stack fault again and again:
    //             nothing was run then
    template <class Body>
    static bool Run(const Body& body, const SignalHandlers& handlers = FindSignalHandlers(), bool endsCall = false)
    {
        if (Current() != nullptr)
        {
            body();
            return true;
        }
        return RunOutermost([](const void* call) { (*static_cast<const Body*>(call))(); }, &body, handlers, endsCall);
    }

    // When the calling code runs in a signal handler within a dump of this thread: goes back to the part that the signal has
    // ended. Returns when there is none, or the signal was sent and the dump can go on after the handler.
    static void LeaveFaultyPart(int signal, int signalCode) noexcept;

    // Whether the signal tells of a fault of the thread that gets it, and not of somebody who sent it.
    static bool IsFault(int signal, int signalCode) noexcept;

    // Writes the lines that wait, after each part: the process may end before the next.
    void WriteLines() noexcept;

    // Standard output and the log. A line that cannot be logged because what is damaged is the logger itself is lost, and
    // the dump goes on without the log.
    void Print(const char* line) noexcept { m_output.PrintLine(line); }
    void Log(int level, unsigned int mask, const char* source, const char* text);

private:
    explicit Dump(DumpStack& stack, bool hasLog) noexcept;
    ~Dump();
    Dump(const Dump&) = delete;
    Dump& operator=(const Dump&) = delete;

    static bool RunOutermost(void (*run)(const void*), const void* body, const SignalHandlers& handlers, bool endsCall);
    bool HasLog() noexcept;

    DumpStack& m_stack;
    bool m_hasLog; // the logger's section is held
    std::int64_t m_lease = 0;
    bool m_isLogDamaged = false;
    StandardOutput m_output;
};

} // namespace Crash

#endif
