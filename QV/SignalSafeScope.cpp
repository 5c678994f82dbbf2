#include "QV/SignalSafeScope.h"

#include <atomic>

namespace QV
{

namespace
{

constinit std::atomic<bool (*)() noexcept> gIsInSignalHandler = nullptr;

} // namespace

constinit thread_local bool SignalSafeScope::sIsActive = false;
constinit thread_local int SignalSafeScope::sWaitLeftMs = 0;

void SignalSafeScope::SetCheck(bool (*isInSignalHandler)() noexcept) noexcept
{
    gIsInSignalHandler.store(isInSignalHandler);
}

bool SignalSafeScope::CheckActive() noexcept
{
    const auto isInSignalHandler = gIsInSignalHandler.load(std::memory_order_relaxed);
    sIsActive = isInSignalHandler == nullptr || isInSignalHandler();
    return sIsActive;
}

} // namespace QV
