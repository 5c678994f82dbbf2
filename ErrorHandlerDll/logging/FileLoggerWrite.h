// The way of a line through the logger: filter, section, compose, strategy, file. Included by FileLogger.h only; a template,
// because plain messages and hex dumps both go straight into the line.
#ifndef ERRORHANDLERDLL_LOGGING_FILELOGGERWRITE_H
#define ERRORHANDLERDLL_LOGGING_FILELOGGERWRITE_H

#include "ErrorHandlerDll/logging/LineFields.h"

#include <cerrno>

template <class Message>
bool FileLogger::Write(int level, unsigned int mask, std::string_view source, const Message& message)
{
    if (!CanWrite(level, mask))
    {
        return true;
    }
    const int hostErrno = errno;
    bool written = true;
    {
        const LoggerSection section(*this);
        if (!m_destroyed.load(std::memory_order_relaxed)) [[likely]]
        {
            CreateCurrentLine(level, source, message);
            written = PrepareOutputSource() && WriteCurrentLineToFile();
        }
    }
    errno = hostErrno;
    return written;
}

// All fields are measured first, so that the line is allocated once, and not at all when it is as long as the one before.
template <class Message>
void FileLogger::CreateCurrentLine(int level, std::string_view source, const Message& message)
{
    char levelBuffer[kLevelFieldSize];
    const std::string_view levelField = GetLogLevelAsString(level, levelBuffer);
    const std::string_view threadField = GetThreadField();
    const std::size_t length =
        LineClock::kStampLength + levelField.size() + threadField.size() + source.size() + message.size() + 1;

    char* out = m_currentLine.SetLength(length);
    out = m_clock.WriteStamp(out);
    out += levelField.copy(out, levelField.size());
    out += threadField.copy(out, threadField.size());
    out += source.copy(out, source.size());
    out += message.copy(out, message.size());
    *out = '\n';
}

inline bool FileLogger::WriteCurrentLineToFile()
{
    if (!m_file.IsOpen())
    {
        return false;
    }
    m_file.Append(m_currentLine);
    if (++m_linesSinceFlush > m_flushInterval)
    {
        m_file.Flush();
        m_linesSinceFlush = 0;
    }
    return true;
}

#endif
