// The way of a line through the logger: filter, section, compose, strategy, file. Included by FileLogger.h only; a template,
// because plain messages and hex dumps both go straight into the line.
#ifndef ERRORHANDLERDLL_LOGGING_FILELOGGERWRITE_H
#define ERRORHANDLERDLL_LOGGING_FILELOGGERWRITE_H

#include "ErrorHandlerDll/logging/LineFields.h"

#include <cerrno>

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

// The text of a message that a dump or an interrupting signal handler logs, provided that there is memory for it: in an
// emergency nobody may throw, for that takes the heap.
inline bool HasRoomFor(std::string_view)
{
    return true;
}

template <class Message>
bool HasRoomFor(const Message& message)
{
    return message.size() < QV::Memory::kReserveBlockSize;
}

inline std::string_view ToText(std::string_view message)
{
    return message;
}

template <class Message>
QV::BaseString<char> ToText(const Message& message)
{
    QV::BaseString<char> text;
    message.copy(text.SetLength(message.size()), message.size());
    return text;
}

template <class Message>
bool FileLogger::Write(int level, unsigned int mask, std::string_view source, Message message)
{
    if (!CanWrite(level, mask))
    {
        return true;
    }
    if (QV::EmergencyScope::IsActive()) [[unlikely]]
    {
        return HasRoomFor(message) && Emergency().Write(level, source, ToText(message), LogEmergency::Caller::DUMP);
    }
    const int hostErrno = errno;
    bool written = true;
    {
        const LoggerSection section(*this);
        if (m_busy.load(std::memory_order_relaxed)) [[unlikely]]
        {
            // A signal handler that logs, while the code that it interrupted was here.
            const QV::EmergencyScope emergency;
            written = HasRoomFor(message) &&
                      Emergency().Write(level, source, ToText(message), LogEmergency::Caller::SIGNAL_HANDLER);
        }
        else if (!m_retired.load(std::memory_order_relaxed)) [[likely]]
        {
            const BusyScope busy(m_busy);
            written = WriteLine(level, source, message);
        }
    }
    errno = hostErrno;
    return written;
}

// All fields are measured first: then the output is made ready for a line of that length, and the line is composed where it
// will be written from. That costs no allocation and one copy.
template <class Message>
bool FileLogger::WriteLine(int level, std::string_view source, const Message& message)
{
    char levelBuffer[kLevelFieldSize];
    const std::string_view levelField = GetLogLevelAsString(level, levelBuffer);
    const ThreadField& threadField = GetThreadField();
    const std::size_t length =
        LineClock::kStampLength + levelField.size() + threadField.m_length + source.size() + message.size() + 1;
    m_currentLineLength = length; // for the strategy; a signal handler that logs in between changes it
    if (!PrepareOutputSource() || !m_file.IsOpen())
    {
        return false;
    }
    const auto compose = [&](char* out)
    {
        out = m_clock.WriteStamp(out);
        out = CopyLevelField(out, levelField);
        out = CopyThreadField(out, threadField);
        out += source.copy(out, source.size());
        out += message.copy(out, message.size());
        *out = '\n';
    };
    if (char* const place = m_file.Reserve(length)) [[likely]]
    {
        compose(place);
        m_file.Commit(length);
    }
    else if (length > LogFile::kBufferSize)
    {
        compose(m_currentLine.SetLength(length));
        m_file.WriteLongLine(m_currentLine);
        if (length > kMostKeptForLines)
        {
            m_currentLine.Release();
        }
    }
    CountLine();
    return true;
}

inline void FileLogger::CountLine()
{
    if (++m_linesSinceFlush > m_flushInterval)
    {
        m_file.Flush();
        m_linesSinceFlush = 0;
    }
}

#endif
