#include "ErrorHandlerDll/logging/FileLogger.h"

#include "ErrorHandlerDll/logging/FileSizeLoggerStrategy.h"
#include "ErrorHandlerDll/logging/SimpleLoggerStrategy.h"

#include <climits>
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

void FileLogger::ForgetInterruptedCall()
{
    m_buffersDump.store(false, std::memory_order_relaxed);
    m_file.FlushInEmergency();
    if (!m_file.HasUnwrittenLines())
    {
        m_file.ForgetBuffer();
    }
    m_busy.store(false, std::memory_order_relaxed);
}

void FileLogger::BeginDump()
{
    if (!m_busy.load(std::memory_order_relaxed)) // else this thread was interrupted in the middle of something
    {
        m_file.Flush();
        m_buffersDump.store(!m_file.HasUnwrittenLines(), std::memory_order_relaxed);
    }
}

void FileLogger::EndDump()
{
    if (m_buffersDump.exchange(false, std::memory_order_relaxed) && m_file.HasUnwrittenLines())
    {
        m_file.ForgetBuffer();
    }
}

void FileLogger::RestoreSectionDepth(unsigned int depth)
{
    if (ZelvoWinAPI::IsInCriticalSection(&m_criticalSection))
    {
        m_criticalSection.m_enterCount = depth;
    }
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
        PrepareInEmergency(Interrupted::GOES_ON);
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

bool FileLogger::WriteInEmergency(int level, std::string_view source, std::string_view message, Interrupted interrupted)
{
    const LoggerSection section(*this);
    if (m_retired.load(std::memory_order_relaxed))
    {
        return true;
    }
    char fields[LineClock::kStampLength + kLevelFieldSize + kThreadFieldSize];
    char levelBuffer[kLevelFieldSize];
    const std::string_view levelField = GetLogLevelAsString(level, levelBuffer);
    char* end = m_clock.WriteStampInEmergency(fields);
    end = CopyLevelField(end, levelField);
    end = CopyThreadField(end, GetThreadField());

    const std::string_view parts[LogFile::kMaxParts] = {std::string_view(fields, static_cast<std::size_t>(end - fields)),
                                                        source, message, "\n"};
    m_currentLineLength = parts[0].size() + source.size() + message.size() + 1;
    if (!PrepareInEmergency(interrupted))
    {
        return false;
    }
    if (char* place = MayBuffer() ? m_file.Reserve(m_currentLineLength) : nullptr)
    {
        for (const std::string_view part : parts)
        {
            place += part.copy(place, part.size());
        }
        m_file.Commit(m_currentLineLength);
        return true;
    }
    m_file.WritePastBuffer(parts);
    return true;
}

// A thread that dumps without the section does not.
bool FileLogger::MayBuffer() const
{
    return m_buffersDump.load(std::memory_order_relaxed) && ZelvoWinAPI::IsInCriticalSection(&m_criticalSection);
}

bool FileLogger::PrepareInEmergency(Interrupted interrupted)
{
    if (interrupted == Interrupted::GOES_ON)
    {
        // Names and files are the interrupted code's, and what it is flushing right now it writes itself.
        if (IsLogFileOpen() && !m_file.IsFlushing())
        {
            m_file.FlushInEmergency();
        }
        return IsLogFileOpen();
    }
    if (!MayBuffer())
    {
        m_file.FlushInEmergency();
    }
    m_logFileName.Remeasure(); // the interrupted code may have been replacing it
    if (m_logFileName.GetLength() >= PATH_MAX)
    {
        return IsLogFileOpen(); // no such file can be opened, and its name does not fit the reserve
    }
    if (FileLoggerStrategy* const strategy = m_strategy)
    {
        return strategy->PrepareOutputSource() && IsLogFileOpen();
    }
    if (!IsLogFileOpen())
    {
        m_file.Open(m_logFileName.GetData(), kAppendMode);
    }
    return IsLogFileOpen();
}
