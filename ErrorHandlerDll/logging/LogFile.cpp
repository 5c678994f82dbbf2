#include "ErrorHandlerDll/logging/LogFile.h"

#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

void LogFile::Open(const char* name, std::string_view mode)
{
    const int how = mode.substr(0, 1) == "w" ? O_TRUNC : O_APPEND;
    m_descriptor = ZelvoWinAPI::OpenFile(name, O_RDWR | O_CREAT | how);
}

void LogFile::Close()
{
    if (!IsOpen())
    {
        return;
    }
    Flush();
    if (m_used > 0)
    {
        Flush(); // one failing call must not cost a line
    }
    if (m_used > 0)
    {
        CutTornLine();
    }
    ZelvoWinAPI::CloseFile(m_descriptor);
    m_descriptor = -1;
    m_used = 0;
    m_written = 0;
}

void LogFile::Append(std::string_view line)
{
    if (line.size() > kBufferSize - m_used) [[unlikely]]
    {
        Flush();
        if (line.size() > kBufferSize - m_used)
        {
            WriteThrough(line);
            return;
        }
    }
    std::memcpy(m_buffer + m_used, line.data(), line.size());
    m_used += line.size();
}

void LogFile::Flush()
{
    while (m_written < m_used)
    {
        const std::ptrdiff_t count = ZelvoWinAPI::WriteFile(m_descriptor, m_buffer + m_written, m_used - m_written);
        if (count <= 0)
        {
            return;
        }
        m_written += static_cast<std::size_t>(count);
    }
    m_used = 0;
    m_written = 0;
}

// A line longer than the whole buffer.
void LogFile::WriteThrough(std::string_view line)
{
    if (m_used > 0)
    {
        return; // the lines before it could not be written: it is dropped, as they come first
    }
    std::size_t written = 0;
    while (written < line.size())
    {
        const std::ptrdiff_t count = ZelvoWinAPI::WriteFile(m_descriptor, line.data() + written, line.size() - written);
        if (count <= 0)
        {
            break;
        }
        written += static_cast<std::size_t>(count);
    }
    if (written > 0 && written < line.size())
    {
        m_buffer[m_used++] = '\n'; // ends the torn line, so that the next one starts on its own
    }
}

// The file ends in the first part of a line whose rest is lost now: takes that part back, provided the file still ends in
// it.
void LogFile::CutTornLine() const
{
    std::size_t lineStart = m_written;
    while (lineStart > 0 && m_buffer[lineStart - 1] != '\n')
    {
        --lineStart;
    }
    const std::size_t torn = m_written - lineStart;
    struct stat status = {};
    if (torn == 0 || fstat(m_descriptor, &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_size < static_cast<off_t>(torn))
    {
        return;
    }
    const off_t end = status.st_size - static_cast<off_t>(torn);
    char tail[256];
    for (std::size_t done = 0; done < torn;)
    {
        const std::size_t size = torn - done < sizeof tail ? torn - done : sizeof tail;
        const ssize_t count = pread(m_descriptor, tail, size, end + static_cast<off_t>(done));
        if (count != static_cast<ssize_t>(size) || std::memcmp(tail, m_buffer + lineStart + done, size) != 0)
        {
            return;
        }
        done += size;
    }
    static_cast<void>(!ftruncate(m_descriptor, end)); // when this fails too, nothing more can be done
}

int LogFile::GetSize() const
{
    if (!IsOpen())
    {
        return -1;
    }
    struct stat status = {};
    if (fstat(m_descriptor, &status) != 0)
    {
        return -1;
    }
    const off_t size = status.st_size + static_cast<off_t>(m_used - m_written);
    return size > INT_MAX ? INT_MAX : static_cast<int>(size);
}
