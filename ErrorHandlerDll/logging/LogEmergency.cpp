#include "ErrorHandlerDll/logging/LogEmergency.h"

#include "ErrorHandlerDll/logging/FileLogger.h"
#include "ErrorHandlerDll/logging/LineFields.h"

#include <climits>

unsigned int LogEmergency::GetSectionDepth() const
{
    return m_log.m_criticalSection.m_enterCount;
}

void LogEmergency::RestoreSectionDepth(unsigned int depth) const
{
    if (ZelvoWinAPI::IsInCriticalSection(&m_log.m_criticalSection))
    {
        m_log.m_criticalSection.m_enterCount = depth;
    }
}

void LogEmergency::SetLease(std::uintptr_t low, std::uintptr_t high, int milliseconds) const
{
    ZelvoWinAPI::SetLease(&m_log.m_criticalSection, low, high, milliseconds);
}

void LogEmergency::EndLease() const
{
    ZelvoWinAPI::EndLease(&m_log.m_criticalSection);
}

bool LogEmergency::IsInCriticalSection() const
{
    return ZelvoWinAPI::IsInCriticalSection(&m_log.m_criticalSection);
}

void LogEmergency::ForgetInterruptedCall() const
{
    m_log.m_file.FlushInEmergency();
    if (!m_log.m_file.HasUnwrittenLines())
    {
        m_log.m_file.ForgetBuffer();
    }
    m_log.m_logFileName.Remeasure();
    m_log.m_buffersDump.store(false, std::memory_order_relaxed);
    m_log.m_busy.store(false, std::memory_order_relaxed);
}

void LogEmergency::BeginDump() const
{
    if (!m_log.m_busy.load(std::memory_order_relaxed)) // else this thread was interrupted in the middle of something
    {
        m_log.m_file.Flush();
        m_log.m_buffersDump.store(!m_log.m_file.HasUnwrittenLines(), std::memory_order_relaxed);
    }
}

void LogEmergency::EndDump() const
{
    if (m_log.m_buffersDump.exchange(false, std::memory_order_relaxed) && m_log.m_file.HasUnwrittenLines())
    {
        m_log.m_file.ForgetBuffer();
    }
}

void LogEmergency::Flush() const
{
    m_log.FlushLogFile();
}

void LogEmergency::ForgetStrategy() const
{
    m_log.m_strategy.store(nullptr, std::memory_order_relaxed);
}

bool LogEmergency::Write(int level, std::string_view source, std::string_view message, Caller caller) const
{
    const LoggerSection section(m_log);
    if (m_log.IsRetired())
    {
        return true;
    }
    char fields[LineClock::kStampLength + kLevelFieldSize + kThreadFieldSize];
    char levelBuffer[kLevelFieldSize];
    const std::string_view levelField = GetLogLevelAsString(level, levelBuffer);
    char* end = m_log.m_clock.WriteStampInEmergency(fields);
    end = CopyLevelField(end, levelField);
    end = CopyThreadField(end, GetThreadField());

    const std::string_view parts[LogFile::kMaxParts] = {std::string_view(fields, static_cast<std::size_t>(end - fields)),
                                                        source, message, "\n"};
    m_log.m_currentLineLength = parts[0].size() + source.size() + message.size() + 1;
    if (!PrepareOutput(caller))
    {
        return false;
    }
    if (char* place = MayBuffer() ? m_log.m_file.Reserve(m_log.m_currentLineLength) : nullptr)
    {
        for (const std::string_view part : parts)
        {
            place += part.copy(place, part.size());
        }
        m_log.m_file.Commit(m_log.m_currentLineLength);
        return true;
    }
    m_log.m_file.WritePastBuffer(parts);
    return true;
}

// A thread that dumps without the section does not.
bool LogEmergency::MayBuffer() const
{
    return m_log.m_buffersDump.load(std::memory_order_relaxed) && ZelvoWinAPI::IsInCriticalSection(&m_log.m_criticalSection);
}

bool LogEmergency::PrepareOutput(Caller caller) const
{
    if (caller == Caller::SIGNAL_HANDLER)
    {
        // Names and files are the interrupted code's, and what it is flushing right now it writes itself.
        if (m_log.IsLogFileOpen() && !m_log.m_file.IsFlushing())
        {
            m_log.m_file.FlushInEmergency();
        }
        return m_log.IsLogFileOpen();
    }
    if (!MayBuffer())
    {
        m_log.m_file.FlushInEmergency();
    }
    m_log.m_logFileName.Remeasure(); // the interrupted code may have been replacing it
    if (m_log.m_logFileName.GetLength() >= PATH_MAX)
    {
        return m_log.IsLogFileOpen(); // no such file can be opened, and its name does not fit the reserve
    }
    if (FileLoggerStrategy* const strategy = m_log.m_strategy)
    {
        return strategy->PrepareOutputSource() && m_log.IsLogFileOpen();
    }
    if (!m_log.IsLogFileOpen())
    {
        m_log.m_file.Open(m_log.m_logFileName.GetData(), "a+t");
    }
    return m_log.IsLogFileOpen();
}
