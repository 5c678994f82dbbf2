#include "ErrorHandlerDll/logging/FileLogger.h"

#include "ErrorHandlerDll/logging/FileSizeLoggerStrategy.h"
#include "ErrorHandlerDll/logging/SimpleLoggerStrategy.h"

#include <cstring>

namespace
{

constexpr const char* kDefaultFileName = "ZelvoReader.log";
constexpr unsigned int kDefaultFlushInterval = 100;

} // namespace

FileLogger::FileLogger() : m_logFileName(kDefaultFileName), m_flushInterval(kDefaultFlushInterval)
{
    ZelvoWinAPI::InitializeCriticalSection(&m_criticalSection);
}

FileLogger::~FileLogger()
{
    EnterCriticalSection();
    m_enabled.store(false);
    m_destroyed.store(true);
    CloseLogFile();
    delete m_strategy;
    m_strategy = nullptr;
    ZelvoWinAPI::DeleteCriticalSection(&m_criticalSection);
}

void FileLogger::Initialise(bool enable, int level, unsigned int mask, const QV::BaseString<char>& fileName)
{
    const LoggerSection section(*this);
    if (m_destroyed.load(std::memory_order_relaxed))
    {
        return;
    }
    if (std::strcmp(fileName.GetData(), m_logFileName.GetData()) != 0)
    {
        CloseLogFile();
        SetLogFileName(fileName);
    }
    m_logLevel.store(level, std::memory_order_relaxed);
    m_logMask.store(mask, std::memory_order_relaxed);
    m_enabled.store(enable, std::memory_order_relaxed);
}

void FileLogger::SetOptions(LoggingSettings* settings)
{
    const LoggerSection section(*this);
    if (m_destroyed.load(std::memory_order_relaxed))
    {
        return;
    }
    m_flushInterval = settings->flushInterval;
    delete m_strategy;
    m_strategy = nullptr;
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
    settings->strategy = m_strategy == nullptr ? LOGGING_STRATEGY_APPEND : m_strategy->GetType();
    // Only SetOptions makes strategies of this type, and it makes no other class for it.
    settings->maxFileSize = settings->strategy == LOGGING_STRATEGY_FILE_SIZE
                                ? static_cast<const FileSizeLoggerStrategy*>(m_strategy)->GetMaxFileSize()
                                : 0;
    settings->reserved = m_reserved;
}

void FileLogger::BeforeFork()
{
    EnterCriticalSection();
    FlushLogFile();
}

void FileLogger::AfterForkInChild()
{
    ZelvoWinAPI::AdoptCriticalSection(&m_criticalSection);
    LeaveCriticalSection();
}

void FileLogger::OpenLogFile(const QV::BaseString<char>& mode)
{
    CloseLogFile();
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

bool FileLogger::PrepareOutputSource()
{
    if (m_strategy == nullptr) [[unlikely]]
    {
        m_strategy = new SimpleLoggerStrategy(this, "a+t", LOGGING_STRATEGY_APPEND);
    }
    return m_strategy->PrepareOutputSource();
}
