// "This thread stands in a signal handler." It was interrupted anywhere, so it may hold the heap's lock, the logger's
// section or any other: inside the scope the library takes no heap, and waits for nothing without a limit. Scopes nest.
// Async-signal-safe.
#ifndef QV_SIGNALSAFESCOPE_H
#define QV_SIGNALSAFESCOPE_H

#include <atomic>

namespace QV
{

class SignalSafeScope
{
public:
    // Within a scope that is not active there is no emergency, whatever lies around it.
    explicit SignalSafeScope(bool isActive = true) noexcept : m_outer(sIsActive)
    {
        if (!sIsActive)
        {
            sWaitLeftMs = kMaxWaitMs;
        }
        sIsActive = isActive;
    }
    ~SignalSafeScope() { sIsActive = m_outer; }
    SignalSafeScope(const SignalSafeScope&) = delete;
    SignalSafeScope& operator=(const SignalSafeScope&) = delete;

    static bool IsActive() noexcept { return sIsActive && CheckActive(); }

    // A handler of the host may leave scopes by a jump. So where one is active, this is asked whether the calling thread
    // stands in a signal handler at all.
    using Check = bool (*)() noexcept;
    static void SetCheck(Check isInSignalHandler) noexcept { sIsInSignalHandler.store(isInSignalHandler); }

    // For code of the library that leaves scopes by a jump.
    static bool GetState() noexcept { return sIsActive; }
    static void RestoreState(bool isActive) noexcept { sIsActive = isActive; }

    // How long an emergency waits for others. A host's watchdog gives a dying process a few seconds as a rule.
    static constexpr int kMaxWaitMs = 1000;

    // What is left of that for all waits of this emergency together.
    static int& WaitLeftMs() noexcept { return sWaitLeftMs; }

private:
    static bool CheckActive() noexcept;

    static constinit std::atomic<Check> sIsInSignalHandler;

    // In the static block of thread-local storage: the first access in a thread must not allocate.
    [[gnu::tls_model("initial-exec")]] static constinit thread_local bool sIsActive;
    [[gnu::tls_model("initial-exec")]] static constinit thread_local int sWaitLeftMs;

    const bool m_outer;
};

} // namespace QV

#endif
