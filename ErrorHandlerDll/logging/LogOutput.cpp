#include "ErrorHandlerDll/logging/LogOutput.h"

#include "QV/SignalSafeScope.h"
#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <cstring>

int* LogOutput::WaitLimit()
{
    return QV::SignalSafeScope::IsActive() ? &QV::SignalSafeScope::WaitLeftMs() : nullptr;
}

void LogOutput::Open(bool empties)
{
    if (IsOpen()) // one that the host has closed keeps its lines for this opening
    {
        Close();
    }
    m_bufferPosition = m_file.Open(empties) - static_cast<std::int64_t>(m_written.load());
}

void LogOutput::Close(int* waitLeftMs)
{
    if (HasUnwrittenLines() && !Flush(waitLeftMs))
    {
        Flush(waitLeftMs); // one failing call must not cost a line
    }
    EmptyBuffer();
    m_file.Close();
}

bool LogOutput::Flush(int* waitLeftMs)
{
    if (!WriteBuffered(waitLeftMs))
    {
        return false;
    }
    const std::size_t used = GetUsed();
    EmptyBuffer();
    m_bufferPosition += static_cast<std::int64_t>(used);
    return true;
}

void LogOutput::EmptyBuffer()
{
    m_used.store(0, std::memory_order_release); // first: without bytes in the buffer the other numbers say nothing
    m_written.store(0, std::memory_order_release);
    m_claim.store((m_claim.load(std::memory_order_relaxed) | kByFlush) + 1, std::memory_order_release);
}

// From here to EndFlush nobody else claims lines. What was claimed before counts as written.
void LogOutput::BeginFlush(std::size_t used)
{
    Claim claim = m_claim.load(std::memory_order_acquire);
    do
    {
        const bool wasCutOff = ClaimedBytes(claim) == kByFlush;
        m_written.store(wasCutOff ? FindWritten(used) : ClaimedBytes(claim), std::memory_order_release);
    } while (!m_claim.compare_exchange_weak(claim, claim | kByFlush));
}

void LogOutput::EndFlush()
{
    const Claim buffer = m_claim.load(std::memory_order_relaxed) & ~kByFlush;
    m_claim.store(buffer | m_written.load(std::memory_order_relaxed), std::memory_order_release);
}

bool LogOutput::WriteBuffered(int* waitLeftMs)
{
    const std::size_t used = m_used.load(std::memory_order_acquire);
    BeginFlush(used);
    const std::string_view lines(m_buffer, used);
    const bool isDone = m_file.WriteAll({&lines, 1}, m_written, waitLeftMs);
    EndFlush();
    return isDone;
}

// The owner may wake at any moment and fill the buffer anew, so the lines are copied before they are claimed: as long as
// they can be claimed, nothing has happened to them. One thread at a time makes such a copy.
void LogOutput::WriteLinesOfOwner(int& waitLeftMs)
{
    static char copy[kBufferSize];
    const std::uint32_t self = ZelvoWinAPI::GetCurrentThreadId();
    std::uint32_t expected = 0;
    if (!m_copyOwner.compare_exchange_strong(expected, self) && expected != self) // its own: it has left this by a jump
    {
        return;
    }
    Claim claim = m_claim.load(std::memory_order_acquire); // before the number of bytes, which then is not older
    const std::size_t used = m_used.load(std::memory_order_acquire);
    const std::size_t start = ClaimedBytes(claim);
    if (start < used && IsOpen())
    {
        std::memcpy(copy, m_buffer + start, used - start);
        if (m_claim.compare_exchange_strong(claim, (claim & ~kByFlush) | used))
        {
            for (; !IsOpen() && waitLeftMs > 0; --waitLeftMs) // the owner is between two files
            {
                ZelvoWinAPI::Sleep(1);
            }
            const std::string_view lines(copy, used - start);
            m_file.WriteBesideOwner({&lines, 1}, &waitLeftMs);
        }
    }
    m_copyOwner.store(0);
}

bool LogOutput::WritePastBuffer(LogFile::Pieces pieces, int* waitLeftMs)
{
    std::atomic<std::size_t> written = 0;
    const bool isDone = m_file.WriteAll(pieces, written, waitLeftMs);
    m_bufferPosition += static_cast<std::int64_t>(written.load(std::memory_order_relaxed));
    return isDone;
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

void LogOutput::ForgetBuffer()
{
    m_written.store(GetUsed(), std::memory_order_release);
    EndFlush();
}

void LogOutput::ForgetInterruptedCall()
{
    const std::size_t used = m_used.load(std::memory_order_acquire);
    BeginFlush(used);
    const std::string_view lines(m_buffer, used);
    m_file.EndOnWholeLine({&lines, 1}, m_written);
    EndFlush();
    if (!HasUnwrittenLines())
    {
        EmptyBuffer();
    }
    m_bufferPosition = m_file.LookAtEnd() - static_cast<std::int64_t>(m_written.load(std::memory_order_relaxed));
}
