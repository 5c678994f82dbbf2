// "This thread dumps." Everything on the road of a crash dump stands inside Dump::Run: strings take their memory from the
// reserve, the logger writes without waiting for what may never come, the dumps of several threads come one after the other,
// and all of it runs on a stack of the library. Async-signal-safe.
#ifndef ERRORHANDLERDLL_CRASH_DUMP_H
#define ERRORHANDLERDLL_CRASH_DUMP_H

#include <csetjmp>

namespace Crash
{

class Dump
{
public:
    // Runs `body` as a dump of this thread; within another one, as a piece of that. Waits for another thread's dump and for
    // the logger's section, for each a bounded time, and goes on without them then. What the body throws passes.
    template <class Body>
    static void Run(const Body& body)
    {
        if (IsUnderWay())
        {
            body();
        }
        else
        {
            RunOutermost([](const void* call) { (*static_cast<const Body*>(call))(); }, &body);
        }
    }

    // Runs a part of a dump that may fault, on a corrupt process. The fault reaches the host's signal handler again (when
    // that is installed with SA_NODEFER), which builds another StructuredException: its constructor calls LeaveFaultyPart.
    //   returns false when a fault ended the part
    template <class Part>
    static bool RunPart(const Part& part)
    {
        const Place place;
        if (sigsetjmp(place.m_context, 0) != 0) // the mask is restored below: saving it costs a system call each time
        {
            place.Restore();
            return false;
        }
        part();
        return true;
    }

    // Writes the lines that wait: at the end of each part, for who knows whether there is another.
    static void WriteLines() noexcept;

    // Whether the signal says that the thread which gets it has faulted. Others may arrive in the midst of a dump, too.
    static bool IsFault(int signal) noexcept;

    // Goes back to the RunPart of this thread that is under way. Returns when there is none.
    static void LeaveFaultyPart() noexcept;

    // Whether this thread has faulted in a dump where no RunPart was under way, or time and again in the host's callback:
    // another dump would only fault there again.
    static bool IsBeyondHelp() noexcept;

    // What other threads of the parent held in their dumps is free in the child.
    static void AfterForkInChild() noexcept;

private:
    class Scope;

    // Where a fault leads to. The innermost one counts.
    class Place
    {
    public:
        Place() noexcept;
        ~Place();
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;

        // The fault skipped the scopes that lie within, and the return of the handler that would have set the signal mask
        // back.
        void Restore() const noexcept;

        mutable sigjmp_buf m_context;

    private:
        const Place* m_outer;
        int m_emergencyDepth;
        unsigned int m_sectionDepth;
    };

    static bool IsUnderWay() noexcept;
    static void RunOutermost(void (*run)(const void*), const void* body);

    [[gnu::tls_model("initial-exec")]] static constinit thread_local const Place* sPlace;
    [[gnu::tls_model("initial-exec")]] static constinit thread_local const Scope* sScope;
};

} // namespace Crash

#endif
