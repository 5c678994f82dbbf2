#include "QV/SignalSafeScope.h"

namespace QV
{

constinit std::atomic<SignalSafeScope::Check> SignalSafeScope::sIsInSignalHandler = nullptr;
constinit thread_local bool SignalSafeScope::sIsActive = false;
constinit thread_local int SignalSafeScope::sWaitLeftMs = 0;

bool SignalSafeScope::CheckActive() noexcept
{
    const Check isInSignalHandler = sIsInSignalHandler.load(std::memory_order_relaxed);
    sIsActive = isInSignalHandler == nullptr || isInSignalHandler();
    return sIsActive;
}

} // namespace QV
