#include "ErrorHandlerDll/logging/FileLogger.h"

#include "ErrorHandlerDll/logging/LogEntry.h"
#include "QV/ErrnoScope.h"

namespace
{

constexpr const char* kDefaultFileName = "ZelvoReader.log";
constexpr unsigned int kDefaultFlushInterval = 100;

static_assert(LogEntry::kMaxExcess <= LogOutput::kExcess);

// Says that the logger's state is in the middle of a change, for a scope. The caller holds the section.
class BusyScope
{
public:
    explicit BusyScope(std::atomic<bool>& busy) : m_busy(busy) { m_busy.store(true, std::memory_order_release); }
    ~BusyScope() { m_busy.store(false, std::memory_order_release); }
    BusyScope(const BusyScope&) = delete;
    BusyScope& operator=(const BusyScope&) = delete;

private:
    std::atomic<bool>& m_busy;
};

} // namespace

// Runs `change` in the section. Does nothing in an emergency without the section, in a call that interrupted one of this
// thread inside the logger, and at the end of the process.
template <class Change>
void FileLogger::ChangeSettings(const Change& change)
{
    const LogSectionScope section(*this);
    if (section.IsEntered() && !m_retired && !m_busy)
    {
        const BusyScope busy(m_busy);
        change();
    }
}

FileLogger::FileLogger() : m_output({kDefaultFileName})
{
    m_settings.flushInterval = kDefaultFlushInterval;
    m_clock.WarmUp();
    ZelvoWinAPI::InitializeCriticalSection(&m_criticalSection);
}

void FileLogger::Retire()
{
    // Another thread may have been stopped inside for ever; that must not stop the end of the process, too.
    int waitLeftMs = kMaxWaitMs;
    const bool isEntered =
        ZelvoWinAPI::TryEnterCriticalSection(&m_criticalSection, waitLeftMs) != ZelvoWinAPI::Entry::REFUSED;
    m_enabled.store(false);
    m_filterMask.store(0);
    m_retired.store(true);
    if (!isEntered)
    {
        m_output.WriteLinesOfOwner(waitLeftMs);
        return;
    }
    if (m_busy.load(std::memory_order_relaxed)) // the end comes in a signal handler
    {
        Emergency().ForgetInterruptedCall();
    }
    m_output.Close(&waitLeftMs);
    ZelvoWinAPI::DeleteCriticalSection(&m_criticalSection);
}

void FileLogger::Initialise(bool enable, int level, unsigned int mask, const QV::BaseString<char>& fileName)
{
    ChangeSettings(
        [&]
        {
            m_clock.WarmUp();
            if (std::string_view(fileName) != m_output.GetName())
            {
                m_output.Close();
                m_output.SetName({fileName});
            }
            if (!enable)
            {
                m_filterMask.store(0, std::memory_order_relaxed); // first: the new level may let more lines pass
            }
            m_logLevel.store(level, std::memory_order_relaxed);
            m_logMask.store(mask, std::memory_order_relaxed);
            m_filterMask.store(enable ? mask : 0, std::memory_order_relaxed);
            m_enabled.store(enable, std::memory_order_relaxed);
        });
}

void FileLogger::Shutdown()
{
    ChangeSettings([this] { m_output.Close(); });
}

void FileLogger::SetOptions(LoggingSettings* settings)
{
    ChangeSettings(
        [=, this]
        {
            const bool isNumbered = settings->strategy == LOGGING_STRATEGY_FILE_SIZE;
            m_output.Close();
            m_settings = *settings;
            m_settings.maxFileSize = isNumbered ? settings->maxFileSize : 0;
            m_oneFile = SimpleLoggerStrategy(&m_output, settings->strategy == LOGGING_STRATEGY_OVERWRITE);
            m_numberedFiles = FileSizeLoggerStrategy(&m_output, settings->maxFileSize);
            m_strategy = isNumbered ? static_cast<FileLoggerStrategy*>(&m_numberedFiles) : &m_oneFile;
        });
}

void FileLogger::GetOptions(LoggingSettings* settings)
{
    const LogSectionScope section(*this);
    *settings = m_settings;
    settings->logLevel = m_logLevel.load(std::memory_order_relaxed);
    settings->logMask = m_logMask.load(std::memory_order_relaxed);
}

const char* FileLogger::GetLogFileName()
{
    const LogSectionScope section(*this);
    return section.IsEntered() && !m_retired ? m_output.GetName().GetData() : nullptr;
}

void FileLogger::FlushLogFile()
{
    if (QV::SignalSafeScope::IsActive() || m_busy.load(std::memory_order_relaxed)) // or in a handler that interrupted a call
    {
        Emergency().Flush();
    }
    else if (Emergency().IsInCriticalSection()) // else another thread has taken it over
    {
        const BusyScope busy(m_busy);
        m_output.Flush();
    }
}

// In Write, its only caller: two frames cost a tenth of a line.
[[gnu::always_inline]] inline bool FileLogger::WriteLine(const LogEntry& line)
{
    const std::size_t length = line.GetLength();
    m_output.SetLineLength(length); // for the strategy; a signal handler that logs in between changes it
    if (!PrepareOutputSource())
    {
        return false;
    }
    if (char* const place = m_output.Reserve(length)) [[likely]]
    {
        line.Compose(m_clock.WriteStamp(place));
        m_output.Commit(length);
    }
    else if (length > LogOutput::kBufferSize && m_output.Flush()) // the lines before it come first
    {
        WriteLongLine(line);
    }
    if (++m_linesSinceFlush > m_settings.flushInterval)
    {
        m_output.Flush();
        m_linesSinceFlush = 0;
    }
    return true;
}

bool FileLogger::Write(const LogEntry& line)
{
    const ErrnoScope errnoScope;
    if (QV::SignalSafeScope::IsActive()) [[unlikely]]
    {
        return Emergency().Write(line, LogEmergency::Caller::DUMP);
    }
    const LogSectionScope section(*this);
    if (m_busy.load(std::memory_order_relaxed)) [[unlikely]] // this thread's code here was interrupted
    {
        return Emergency().Write(line, LogEmergency::Caller::SIGNAL_HANDLER);
    }
    if (m_retired.load(std::memory_order_relaxed)) [[unlikely]]
    {
        return true;
    }
    const BusyScope busy(m_busy);
    return WriteLine(line);
}

// The texts go to the file as they are, the rows of a dump through the buffer.
void FileLogger::WriteLongLine(const LogEntry& line)
{
    char prefix[LogEntry::kMaxPrefixSize];
    const char* const end = line.ComposePrefix(m_clock.WriteStamp(prefix));
    const std::string_view pieces[] = {{prefix, end}, line.GetSource(), line.GetMessage(), "\n"};
    const HexDump* const dump = m_output.WritePastBuffer(pieces) ? line.GetDump() : nullptr;
    for (std::size_t row = 0; dump != nullptr && row < dump->GetRowCount(); ++row)
    {
        char* const place = m_output.Reserve(HexDump::kMaxRowLength);
        if (place == nullptr)
        {
            break;
        }
        m_output.Commit(static_cast<std::size_t>(dump->ComposeRow(place, row) - place));
    }
}
