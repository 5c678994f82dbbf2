#include "ErrorHandlerDll/logging/FileLogger.h"

#include "ErrorHandlerDll/logging/FileSizeLoggerStrategy.h"
#include "ErrorHandlerDll/logging/SimpleLoggerStrategy.h"

#include <cstring>

namespace
{

constexpr const char* kDefaultFileName = "ZelvoReader.log";
constexpr unsigned int kDefaultFlushInterval = 100;
constexpr const char* kAppendMode = "a+t";

[[gnu::tls_model("initial-exec")]] constinit thread_local bool tEnteredForFork = false;

} // namespace

FileLogger::FileLogger() : m_logFileName(kDefaultFileName), m_flushInterval(kDefaultFlushInterval)
{
    m_clock.WarmUp();
    ZelvoWinAPI::InitializeCriticalSection(&m_criticalSection);
}

void FileLogger::Retire()
{
    // At the end of a process another thread may have been stopped inside for ever; that must not stop the end, too.
    int waitLeftMs = QV::EmergencyScope::kMaxWaitMs;
    if (ZelvoWinAPI::TryEnterCriticalSection(&m_criticalSection, waitLeftMs) == ZelvoWinAPI::Entry::REFUSED)
    {
        Disable();
        m_retired.store(true);
        if (!m_file.IsFlushing()) // else that thread is writing it, however slowly
        {
            m_file.FlushInEmergency();
        }
        return;
    }
    Disable();
    m_retired.store(true);
    CloseLogFile();
    DeleteStrategy();
    m_logFileName.Release();
    m_currentLine.Release();
    ZelvoWinAPI::DeleteCriticalSection(&m_criticalSection);
}

void FileLogger::Disable()
{
    m_enabled.store(false);
    m_filterMask.store(0);
}

void FileLogger::Initialise(bool enable, int level, unsigned int mask, const QV::BaseString<char>& fileName)
{
    const LoggerSection section(*this);
    if (m_retired.load(std::memory_order_relaxed))
    {
        return;
    }
    const BusyScope busy(m_busy);
    if (std::strcmp(fileName.GetData(), m_logFileName.GetData()) != 0)
    {
        CloseLogFile();
        SetLogFileName(fileName);
    }
    if (!enable)
    {
        m_filterMask.store(0, std::memory_order_relaxed); // first: the new level may let more lines pass
    }
    m_logLevel.store(level, std::memory_order_relaxed);
    m_logMask.store(mask, std::memory_order_relaxed);
    m_filterMask.store(enable ? mask : 0, std::memory_order_relaxed);
    m_enabled.store(enable, std::memory_order_relaxed);
}

void FileLogger::Shutdown()
{
    const LoggerSection section(*this);
    const BusyScope busy(m_busy);
    CloseLogFile();
}

void FileLogger::SetOptions(LoggingSettings* settings)
{
    const LoggerSection section(*this);
    if (m_retired.load(std::memory_order_relaxed))
    {
        return;
    }
    const BusyScope busy(m_busy);
    m_flushInterval = settings->flushInterval;
    DeleteStrategy();
    CloseLogFile();
    switch (settings->strategy)
    {
    case LOGGING_STRATEGY_OVERWRITE:
        m_strategy = new SimpleLoggerStrategy(this, "w+t", settings->strategy);
        break;
    case LOGGING_STRATEGY_FILE_SIZE:
        m_strategy = new FileSizeLoggerStrategy(this, settings->maxFileSize, settings->strategy);
        break;
    default:
        m_strategy = new SimpleLoggerStrategy(this, "a+t", settings->strategy);
        break;
    }
    m_reserved = settings->reserved;
}

void FileLogger::GetOptions(LoggingSettings* settings)
{
    const LoggerSection section(*this);
    settings->logLevel = m_logLevel.load(std::memory_order_relaxed);
    settings->logMask = m_logMask.load(std::memory_order_relaxed);
    settings->flushInterval = m_flushInterval;
    const FileLoggerStrategy* const strategy = m_strategy;
    settings->strategy = strategy == nullptr ? LOGGING_STRATEGY_APPEND : strategy->GetType();
    // Only SetOptions makes strategies of this type, and it makes no other class for it.
    settings->maxFileSize = settings->strategy == LOGGING_STRATEGY_FILE_SIZE
                                ? static_cast<const FileSizeLoggerStrategy*>(strategy)->GetMaxFileSize()
                                : 0;
    settings->reserved = m_reserved;
}

// A crash handler may fork, too: then the section may be another thread's for ever, or the state in the middle of a change.
void FileLogger::BeforeFork()
{
    tEnteredForFork = EnterCriticalSection();
    if (!tEnteredForFork)
    {
        return;
    }
    if (m_busy.load(std::memory_order_relaxed))
    {
        Emergency().PrepareOutput(LogEmergency::Caller::SIGNAL_HANDLER);
    }
    else
    {
        FlushLogFile();
    }
}

void FileLogger::AfterForkInParent()
{
    if (tEnteredForFork)
    {
        LeaveCriticalSection();
    }
}

void FileLogger::AfterForkInChild()
{
    m_buffersDump.store(false, std::memory_order_relaxed); // a dump does not go on in the child
    if (!m_busy.load(std::memory_order_relaxed))
    {
        m_file.ForgetBuffer(); // what could not be flushed, or was logged after the flush, is the parent's to write
    }
    if (tEnteredForFork)
    {
        ZelvoWinAPI::AdoptCriticalSection(&m_criticalSection);
        LeaveCriticalSection();
    }
    else
    {
        ZelvoWinAPI::InitializeCriticalSection(&m_criticalSection); // its owner is no thread of the child
    }
}

void FileLogger::OpenLogFile(const QV::BaseString<char>& mode)
{
    if (IsLogFileOpen()) // one that was lost keeps its lines for this opening
    {
        CloseLogFile();
    }
    m_file.Open(m_logFileName.GetData(), mode);
}

// The characters of an unchanged name stay where they are: hosts hold pointers to them.
void FileLogger::SetLogFileName(const QV::BaseString<char>& name)
{
    if (std::string_view(name) != std::string_view(m_logFileName))
    {
        m_logFileName = name;
    }
}

void FileLogger::FlushLogFile()
{
    if (QV::EmergencyScope::IsActive())
    {
        m_file.FlushInEmergency();
        return;
    }
    const BusyScope busy(m_busy);
    m_file.Flush();
}

bool FileLogger::FlushBeforeLeaving()
{
    const bool isEmergency = QV::EmergencyScope::IsActive();
    for (int i = 0; i < 2 && m_file.HasUnwrittenLines(); ++i) // one failing call is no reason to stay
    {
        isEmergency ? m_file.FlushInEmergency() : m_file.Flush();
    }
    return !m_file.HasUnwrittenLines();
}

bool FileLogger::PrepareOutputSource()
{
    if (m_strategy.load(std::memory_order_relaxed) == nullptr) [[unlikely]]
    {
        m_strategy = new SimpleLoggerStrategy(this, kAppendMode, LOGGING_STRATEGY_APPEND);
    }
    return m_strategy.load(std::memory_order_relaxed)->PrepareOutputSource();
}

// A dump must never find a strategy that is being deleted.
void FileLogger::DeleteStrategy()
{
    delete m_strategy.exchange(nullptr);
}
