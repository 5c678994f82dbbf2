#include "QV/EmergencyScope.h"

#include <atomic>

namespace QV
{

namespace
{

constinit std::atomic<bool (*)() noexcept> gIsInSignalHandler = nullptr;

} // namespace

constinit thread_local bool EmergencyScope::sIsActive = false;
constinit thread_local int EmergencyScope::sWaitLeftMs = 0;

void EmergencyScope::SetCheck(bool (*isInSignalHandler)() noexcept) noexcept
{
    gIsInSignalHandler.store(isInSignalHandler);
}

bool EmergencyScope::CheckActive() noexcept
{
    const auto isInSignalHandler = gIsInSignalHandler.load(std::memory_order_relaxed);
    sIsActive = isInSignalHandler == nullptr || isInSignalHandler();
    return sIsActive;
}

} // namespace QV
