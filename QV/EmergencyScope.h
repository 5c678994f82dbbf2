// "This thread is writing its last words." Inside the scope the thread may have been interrupted anywhere, so it may hold
// the heap's lock, the logger's section or any other: strings take their memory from a reserve, and the logger writes
// without waiting for anything that may never come. Scopes nest. Async-signal-safe.
#ifndef QV_EMERGENCYSCOPE_H
#define QV_EMERGENCYSCOPE_H

namespace QV
{

class EmergencyScope
{
public:
    EmergencyScope() noexcept
    {
        if (++sDepth == 1)
        {
            sWaitLeftMs = kMaxWaitMs;
        }
    }
    ~EmergencyScope() { --sDepth; }
    EmergencyScope(const EmergencyScope&) = delete;
    EmergencyScope& operator=(const EmergencyScope&) = delete;

    static bool IsActive() noexcept { return sDepth > 0; }
    static int GetDepth() noexcept { return sDepth; }

    // How long an emergency waits for others. A host's watchdog gives a dying process a few seconds as a rule.
    static constexpr int kMaxWaitMs = 500;

    // What is left of that for all waits of this emergency together.
    static int& WaitLeftMs() noexcept { return sWaitLeftMs; }

    // For code that leaves scopes by a jump.
    static void RestoreDepth(int depth) noexcept { sDepth = depth; }

private:
    // In the static block of thread-local storage: the first access in a thread must not allocate.
    [[gnu::tls_model("initial-exec")]] static constinit thread_local int sDepth;
    [[gnu::tls_model("initial-exec")]] static constinit thread_local int sWaitLeftMs;
};

} // namespace QV

#endif
