#include "ErrorHandlerDll/logging/LogOutput.h"

#include "QV/SignalSafeScope.h"

#include <climits>

int* LogOutput::WaitLimit()
{
    return QV::SignalSafeScope::IsActive() ? &QV::SignalSafeScope::WaitLeftMs() : nullptr;
}

void LogOutput::SetName(const QV::BaseString<char>& name)
{
    if (std::string_view(name) != std::string_view(m_name))
    {
        m_name = name;
    }
}

void LogOutput::Open(bool empties)
{
    if (IsOpen()) // one that the host has closed keeps its lines for this opening
    {
        Close();
    }
    m_bufferPosition = m_file.Open(m_name.GetData(), empties) - static_cast<std::int64_t>(m_written.load());
}

void LogOutput::Close(int* waitLeftMs)
{
    if (HasUnwrittenLines() && !Flush(waitLeftMs))
    {
        Flush(waitLeftMs); // one failing call must not cost a line
    }
    m_used = 0;
    m_written = 0;
    m_file.Close();
}

bool LogOutput::Flush(int* waitLeftMs)
{
    if (!WriteBuffered(waitLeftMs))
    {
        return false;
    }
    const std::size_t used = GetUsed();
    m_used.store(0, std::memory_order_release); // first: without bytes in the buffer the other numbers say nothing
    m_written.store(0, std::memory_order_release);
    m_bufferPosition += static_cast<std::int64_t>(used);
    return true;
}

bool LogOutput::WriteBuffered(int* waitLeftMs)
{
    const std::size_t used = m_used.load(std::memory_order_acquire);
    if (IsFlushing())
    {
        m_written.store(FindWritten(used), std::memory_order_release);
    }
    m_flushing.store(true, std::memory_order_release);
    const std::string_view lines(m_buffer, used);
    const bool isDone = WriteAll({&lines, 1}, m_written, waitLeftMs);
    m_flushing.store(false, std::memory_order_release);
    return isDone;
}

bool LogOutput::WritePastBuffer(LogFile::Pieces pieces, int* waitLeftMs)
{
    std::atomic<std::size_t> written = 0;
    const bool isDone = WriteAll(pieces, written, waitLeftMs);
    m_bufferPosition += static_cast<std::int64_t>(written.load(std::memory_order_relaxed));
    return isDone;
}

// What fails ends behind the last whole line. A file that the host has closed is opened again at once.
bool LogOutput::WriteAll(LogFile::Pieces pieces, std::atomic<std::size_t>& written, int* waitLeftMs)
{
    for (int attempt = 0; attempt < 2; ++attempt)
    {
        if (m_file.WriteAll(pieces, written, waitLeftMs))
        {
            return true;
        }
        EndOnWholeLine(pieces, written);
        if (!m_file.WasClosedByHost())
        {
            return false;
        }
        m_file.Open(m_name.GetData(), false);
    }
    return false;
}

// Several pieces are one line.
void LogOutput::EndOnWholeLine(LogFile::Pieces pieces, std::atomic<std::size_t>& written)
{
    const std::size_t end = written.load(std::memory_order_relaxed);
    const std::size_t lineStart = pieces.size() > 1 ? 0 : pieces[0].substr(0, end).rfind('\n') + 1; // npos + 1 is 0
    const std::string_view torn = pieces[0].substr(lineStart);
    written.store(lineStart, std::memory_order_release);
    m_file.EndOnWholeLine(pieces.size() > 1 ? pieces : LogFile::Pieces(&torn, 1), end - lineStart);
}

char* LogOutput::ReserveAfterFlush(std::size_t length)
{
    return length <= kBufferSize && (Flush() || length <= kBufferSize - GetUsed()) ? m_buffer + GetUsed() : nullptr;
}

// How many of the `used` bytes in the buffer are in the file. After a flush that was cut off the file itself is asked: its
// position moves with each write. The bytes are compared all the same: a forked child shares the position, and other
// processes write to the file, too.
std::size_t LogOutput::FindWritten(std::size_t used) const
{
    const std::size_t noted = m_written.load(std::memory_order_acquire);
    const std::int64_t position = m_file.GetPosition();
    const std::int64_t moved = position - m_bufferPosition;
    if (noted > used)
    {
        return used;
    }
    const auto isInFileUpTo = [&](std::size_t end)
    {
        return m_file.HoldsBefore(position, {m_buffer + noted, end - noted});
    };
    if (moved >= static_cast<std::int64_t>(noted) && moved <= static_cast<std::int64_t>(used) &&
        isInFileUpTo(static_cast<std::size_t>(moved)))
    {
        return static_cast<std::size_t>(moved);
    }
    return isInFileUpTo(used) ? used : noted;
}

void LogOutput::ForgetInterruptedCall()
{
    const std::size_t used = m_used.load(std::memory_order_acquire);
    if (IsFlushing())
    {
        m_written.store(FindWritten(used), std::memory_order_release);
    }
    if (m_written.load(std::memory_order_relaxed) >= used)
    {
        m_used.store(0, std::memory_order_release);
        m_written.store(0, std::memory_order_release);
    }
    const std::string_view lines(m_buffer, used);
    EndOnWholeLine({&lines, 1}, m_written);
    m_flushing.store(false, std::memory_order_release);
    m_bufferPosition = m_file.LookAtEnd() - static_cast<std::int64_t>(m_written.load(std::memory_order_relaxed));
    RemeasureName();
}

bool LogOutput::RemeasureName()
{
    m_name.Remeasure();
    return m_name.GetLength() < PATH_MAX;
}
