#include "ErrorHandlerDll/logging/LogFile.h"

#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

void LogFile::Open(const char* name, std::string_view mode)
{
    const bool empties = mode.substr(0, 1) == "w" && !m_isLost;
    const int how = empties ? O_TRUNC : O_APPEND;
    m_descriptor = ZelvoWinAPI::OpenFile(name, O_RDWR | O_CREAT | how);
    if (IsOpen())
    {
        m_isLost = false;
        m_bufferPosition = lseek(m_descriptor, 0, SEEK_END);
    }
}

void LogFile::Close()
{
    Flush();
    if (IsOpen() && m_used > 0)
    {
        Flush(); // one failing call must not cost a line
    }
    if (IsOpen() && m_used > 0)
    {
        CutTornLine();
    }
    m_used = 0;
    m_written = 0;
    m_isLost = false;
    const int descriptor = m_descriptor;
    m_descriptor = -1; // before it is closed: a dump must not take a number for ours that is somebody else's by then
    if (descriptor >= 0)
    {
        ZelvoWinAPI::CloseFile(descriptor);
    }
}

char* LogFile::ReserveAfterFlush(std::size_t length)
{
    Flush();
    const std::size_t used = m_used;
    return length <= kBufferSize - used ? m_buffer + used : nullptr;
}

void LogFile::Flush()
{
    const std::size_t used = m_used.load(std::memory_order_relaxed);
    m_flushing.store(true, std::memory_order_release);
    if (WriteBuffered(m_written.load(std::memory_order_relaxed), used))
    {
        // In this order: without bytes in the buffer the other numbers say nothing.
        m_used.store(0, std::memory_order_release);
        m_written.store(0, std::memory_order_release);
        if (m_bufferPosition != kUnknownPosition)
        {
            m_bufferPosition += static_cast<std::int64_t>(used);
        }
    }
    m_flushing.store(false, std::memory_order_release);
}

// A descriptor that the host has closed is ours no longer.
void LogFile::NoteFailure(std::ptrdiff_t count)
{
    if (count < 0 && errno == EBADF)
    {
        m_descriptor = -1;
        m_isLost = true;
    }
}

// Writes the bytes [written, used) of the buffer and notes how far it got. Returns whether all of them are in the file.
bool LogFile::WriteBuffered(std::size_t written, std::size_t used)
{
    while (written < used)
    {
        const std::ptrdiff_t count = ZelvoWinAPI::WriteFile(m_descriptor, m_buffer + written, used - written);
        if (count < 0 && errno == EINTR)
        {
            continue;
        }
        if (count <= 0)
        {
            NoteFailure(count);
            return false;
        }
        written += static_cast<std::size_t>(count);
        m_written.store(written, std::memory_order_release);
    }
    return true;
}

void LogFile::WriteLongLine(std::string_view line)
{
    if (m_used > 0)
    {
        return; // the lines before it cannot be written, and they come first
    }
    std::size_t written = 0;
    while (written < line.size())
    {
        const std::ptrdiff_t count = ZelvoWinAPI::WriteFile(m_descriptor, line.data() + written, line.size() - written);
        if (count < 0 && errno == EINTR)
        {
            continue;
        }
        if (count <= 0)
        {
            NoteFailure(count);
            break;
        }
        written += static_cast<std::size_t>(count);
    }
    if (written < line.size() && TakeBack(line.substr(0, written)))
    {
        return;
    }
    if (m_bufferPosition != kUnknownPosition)
    {
        m_bufferPosition += static_cast<std::int64_t>(written);
    }
    if (written < line.size())
    {
        m_buffer[0] = '\n'; // ends the torn line, so that the next one starts on its own
        Commit(1);
    }
}

// Whether `text` stands in the file right before the position `end`.
bool LogFile::FileHoldsBefore(std::int64_t end, std::string_view text) const
{
    char bytes[256];
    std::int64_t position = end - static_cast<std::int64_t>(text.size());
    if (position < 0)
    {
        return false;
    }
    while (!text.empty())
    {
        const std::size_t size = text.size() < sizeof bytes ? text.size() : sizeof bytes;
        if (ZelvoWinAPI::ReadFile(m_descriptor, bytes, size, position) != static_cast<std::ptrdiff_t>(size) ||
            std::memcmp(bytes, text.data(), size) != 0)
        {
            return false;
        }
        text.remove_prefix(size);
        position += static_cast<std::int64_t>(size);
    }
    return true;
}

// The file ends in the first part of a line whose rest is lost: takes that part back, provided the file still ends in it.
//   returns whether nothing of it is left
bool LogFile::TakeBack(std::string_view torn) const
{
    struct stat status = {};
    return torn.empty() ||
           (fstat(m_descriptor, &status) == 0 && S_ISREG(status.st_mode) && FileHoldsBefore(status.st_size, torn) &&
            ftruncate(m_descriptor, status.st_size - static_cast<off_t>(torn.size())) == 0 &&
            lseek(m_descriptor, 0, SEEK_END) >= 0); // without O_APPEND the next write would leave a hole
}

void LogFile::CutTornLine() const
{
    const std::size_t written = m_written;
    std::size_t lineStart = written;
    while (lineStart > 0 && m_buffer[lineStart - 1] != '\n')
    {
        --lineStart;
    }
    TakeBack({m_buffer + lineStart, written - lineStart}); // when this fails too, nothing more can be done
}

int LogFile::GetSize() const
{
    if (!IsOpen())
    {
        return -1;
    }
    const std::int64_t start = m_bufferPosition == kUnknownPosition ? 0 : m_bufferPosition;
    const std::int64_t size = start + static_cast<std::int64_t>(m_used.load(std::memory_order_relaxed));
    return size > INT_MAX ? INT_MAX : static_cast<int>(size);
}

// How many of the `used` bytes in the buffer are in the file. In the middle of a flush the file itself is asked: its
// position moves with each write. The bytes are compared all the same: a forked child shares the position.
std::size_t LogFile::WrittenSoFar(std::size_t used) const
{
    const std::size_t noted = m_written.load(std::memory_order_acquire);
    if (!m_flushing.load(std::memory_order_acquire))
    {
        return noted;
    }
    const std::int64_t position = lseek(m_descriptor, 0, SEEK_CUR);
    const std::int64_t moved = position - m_bufferPosition;
    const auto isInFileUpTo = [&](std::size_t end)
    {
        return FileHoldsBefore(position, {m_buffer + noted, end - noted});
    };
    if (m_bufferPosition != kUnknownPosition && moved >= static_cast<std::int64_t>(noted) &&
        moved <= static_cast<std::int64_t>(used) && isInFileUpTo(static_cast<std::size_t>(moved)))
    {
        return static_cast<std::size_t>(moved);
    }
    return isInFileUpTo(used) ? used : noted; // other processes write to the file, too
}

void LogFile::FlushInEmergency()
{
    const std::size_t used = m_used.load(std::memory_order_acquire);
    if (!IsOpen() || used == 0)
    {
        return;
    }
    const std::size_t written = WrittenSoFar(used);
    if (written < used)
    {
        WriteBuffered(written, used);
    }
    else
    {
        m_written.store(used, std::memory_order_release);
    }
    m_flushing.store(false, std::memory_order_release);
}

void LogFile::WritePastBuffer(const std::string_view (&parts)[kMaxParts])
{
    FlushInEmergency();
    iovec pieces[kMaxParts];
    std::size_t left = 0;
    for (int i = 0; i < kMaxParts; ++i)
    {
        pieces[i] = {const_cast<char*>(parts[i].data()), parts[i].size()};
        left += parts[i].size();
    }
    m_bufferPosition = kUnknownPosition; // these bytes are none of the buffer's
    iovec* piece = pieces;
    while (left > 0)
    {
        std::ptrdiff_t count = ZelvoWinAPI::WritePieces(m_descriptor, piece, static_cast<int>(pieces + kMaxParts - piece));
        if (count < 0 && errno == EINTR)
        {
            continue;
        }
        if (count <= 0)
        {
            return;
        }
        left -= static_cast<std::size_t>(count);
        if (left == 0)
        {
            return;
        }
        for (; count > 0 && static_cast<std::size_t>(count) >= piece->iov_len; ++piece)
        {
            count -= static_cast<std::ptrdiff_t>(piece->iov_len);
        }
        piece->iov_base = static_cast<char*>(piece->iov_base) + count;
        piece->iov_len -= static_cast<std::size_t>(count);
    }
}
