// "This thread dumps." Everything on the road of a crash dump stands inside one: strings take their memory from the reserve,
// the logger writes without waiting for what may never come, and the dumps of several threads come one after the other.
// Async-signal-safe; scopes nest.
#ifndef ERRORHANDLERDLL_CRASH_DUMPSCOPE_H
#define ERRORHANDLERDLL_CRASH_DUMPSCOPE_H

#include "ErrorHandlerDll/ErrnoKeeper.h"
#include "ErrorHandlerDll/crash/DumpStack.h"
#include "ErrorHandlerDll/crash/SignalSet.h"
#include "ErrorHandlerDll/crash/StandardOutput.h"
#include "QV/EmergencyScope.h"

#include <csetjmp>
#include <csignal>
#include <cstdint>

namespace Crash
{

class DumpScope
{
public:
    // Runs `body` as a dump of this thread, on the dump's own stack. Within another one it is a part of that.
    template <class Body>
    static void RunDump(const Body& body)
    {
        if (sDepth > 0)
        {
            body();
            return;
        }
        const DumpScope dump;
        RunOnDumpStack(
            [](const void* call)
            {
                Run(StandardOutput::Prepare);
                (*static_cast<const Body*>(call))();
            },
            &body);
    }

    // Waits for another thread's dump and for the logger's section, for each a bounded time, and goes on without them then.
    DumpScope() noexcept;
    ~DumpScope();
    DumpScope(const DumpScope&) = delete;
    DumpScope& operator=(const DumpScope&) = delete;

    // Runs a part of the dump that may fault, on a corrupt process. The fault reaches the host's signal handler again (when
    // that is installed with SA_NODEFER), which builds another StructuredException: its constructor calls LeaveFaultyPart.
    //   returns false when a fault ended the part
    template <class Part>
    static bool Run(const Part& part)
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

    // Writes the lines of this thread's dump that wait: at the end of each part, for who knows whether there is another.
    static void WriteLines() noexcept;

    // Whether the signal says that the thread which gets it has faulted. Others may arrive in the midst of a dump, too.
    static bool IsFault(int signal) noexcept;

    // Goes back to the Run of this thread that is under way. Returns when there is none.
    static void LeaveFaultyPart() noexcept;

    // Whether this thread has faulted in a dump where no Run was under way, or time and again in the host's callback:
    // another dump would only fault there again.
    static bool IsBeyondHelp() noexcept;

    // What other threads of the parent held in their dumps is free in the child.
    static void AfterForkInChild() noexcept;

private:
    // Where a fault leads to. The innermost one counts.
    class Place
    {
    public:
        Place() noexcept;
        ~Place();
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;

        // The fault skipped the scopes that lie within, of dumps and of the logger's section, and the return of the handler
        // that would have set the signal mask back.
        void Restore() const noexcept;

        mutable sigjmp_buf m_context;

    private:
        const Place* m_outer;
        int m_dumpDepth;
        int m_emergencyDepth;
        unsigned int m_sectionDepth;
    };

    void HoldBackSignals() noexcept;
    void ReleaseSignals() noexcept;

    [[gnu::tls_model("initial-exec")]] static constinit thread_local int sDepth;
    [[gnu::tls_model("initial-exec")]] static constinit thread_local const Place* sPlace;
    [[gnu::tls_model("initial-exec")]] static constinit thread_local DumpScope* sOutermost;

    const ErrnoKeeper m_errno;
    const QV::EmergencyScope m_emergency;
    bool m_isOutermost;
    bool m_hasDumpSection = false;
    bool m_hasLog = false;
    SignalSet m_hostMask = 0;
    SignalSet m_dumpMask = 0;
    SignalSet m_pendingBefore = 0;
};

} // namespace Crash

#endif
