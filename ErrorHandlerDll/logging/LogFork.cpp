#include "ErrorHandlerDll/logging/LogFork.h"

#include "ErrorHandlerDll/logging/FileLogger.h"

#include <sys/single_threaded.h>

namespace
{

[[gnu::tls_model("initial-exec")]] constinit thread_local bool tEnteredForFork = false;
[[gnu::tls_model("initial-exec")]] constinit thread_local bool tHadThreads = false;

} // namespace

// A crash handler may fork, too: then the section may be another thread's for ever, or the state in the middle of a change.
void LogFork::Before(FileLogger& logger)
{
    int ownWaitLeftMs = FileLogger::kMaxWaitMs;
    int& waitLeftMs = QV::SignalSafeScope::IsActive() ? QV::SignalSafeScope::WaitLeftMs() : ownWaitLeftMs;
    tHadThreads = __libc_single_threaded == 0;
    const ZelvoWinAPI::Entry entry = ZelvoWinAPI::TryEnterCriticalSection(&logger.m_criticalSection, waitLeftMs);
    tEnteredForFork = entry != ZelvoWinAPI::Entry::REFUSED;
    if (entry == ZelvoWinAPI::Entry::TAKEN_OVER)
    {
        logger.Emergency().ForgetInterruptedCall();
    }
    if (tEnteredForFork && logger.m_output.HasUnwrittenLines() && !logger.m_output.IsFlushing())
    {
        const bool wasBusy = logger.m_busy.exchange(true); // a handler that logs now must not flush the same lines
        logger.m_output.WriteBuffered(&waitLeftMs);
        logger.m_busy.store(wasBusy);
    }
}

void LogFork::AfterInParent(FileLogger& logger)
{
    if (tEnteredForFork)
    {
        logger.LeaveCriticalSection();
    }
}

void LogFork::AfterInChild(FileLogger& logger)
{
    logger.m_output.ForgetBuffer(); // what could not be flushed, or was logged after the flush, is the parent's to write
    logger.m_output.ForgetOtherThreads();
    if (tHadThreads)
    {
        logger.m_clock.ForgetZone();
    }
    if (tEnteredForFork)
    {
        logger.m_buffersDump.store(false, std::memory_order_relaxed); // a dump does not go on in the child
        ZelvoWinAPI::AdoptCriticalSection(&logger.m_criticalSection);
        logger.LeaveCriticalSection();
        return;
    }
    logger.Emergency().ForgetInterruptedCall(); // its owner is no thread of the child
    ZelvoWinAPI::InitializeCriticalSection(&logger.m_criticalSection);
}
