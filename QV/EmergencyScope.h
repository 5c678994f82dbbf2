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
    EmergencyScope() noexcept { ++sDepth; }
    ~EmergencyScope() { --sDepth; }
    EmergencyScope(const EmergencyScope&) = delete;
    EmergencyScope& operator=(const EmergencyScope&) = delete;

    static bool IsActive() noexcept { return sDepth > 0; }
    static int GetDepth() noexcept { return sDepth; }

    // For code that leaves scopes by a jump.
    static void RestoreDepth(int depth) noexcept { sDepth = depth; }

private:
    // In the static block of thread-local storage: the first access in a thread must not allocate.
    [[gnu::tls_model("initial-exec")]] static constinit thread_local int sDepth;
};

} // namespace QV

#endif
