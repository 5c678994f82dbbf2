#include "ErrorHandlerDll/logging/LogEmergency.h"

#include "ErrorHandlerDll/logging/FileLogger.h"
#include "ErrorHandlerDll/logging/LogEntry.h"

#include <algorithm>

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

bool LogEmergency::SetLease(std::uintptr_t low, std::uintptr_t high, int milliseconds, std::int64_t& lease) const
{
    return ZelvoWinAPI::SetLease(&m_log.m_criticalSection, low, high, milliseconds, lease);
}

void LogEmergency::EndLease(std::int64_t lease) const
{
    ZelvoWinAPI::EndLease(&m_log.m_criticalSection, lease);
}

bool LogEmergency::IsInCriticalSection() const
{
    return ZelvoWinAPI::IsInCriticalSection(&m_log.m_criticalSection);
}

void LogEmergency::ForgetInterruptedCall() const
{
    m_log.m_output.ForgetInterruptedCall();
    m_log.m_buffersDump.store(false, std::memory_order_relaxed);
    m_log.m_busy.store(false, std::memory_order_relaxed);
}

void LogEmergency::BeginDump() const
{
    if (!m_log.m_busy.load(std::memory_order_relaxed)) // else this thread was interrupted in the middle of something
    {
        m_log.m_buffersDump.store(m_log.m_output.Flush(), std::memory_order_relaxed);
    }
}

void LogEmergency::EndDump() const
{
    if (m_log.m_buffersDump.exchange(false, std::memory_order_relaxed) && m_log.m_output.HasUnwrittenLines())
    {
        m_log.m_output.ForgetBuffer();
    }
}

void LogEmergency::Flush() const
{
    if (ZelvoWinAPI::IsInCriticalSection(&m_log.m_criticalSection) && !m_log.m_retired)
    {
        m_log.m_output.WriteBuffered();
    }
}

bool LogEmergency::Write(const LogEntry& line, Caller caller) const
{
    const LogSectionScope section(m_log);
    if (m_log.m_retired)
    {
        return true;
    }
    const HexDump* const dump = line.GetDump();
    if (dump != nullptr && dump->GetByteCount() > kMaxDumpedBytes && caller == Caller::SIGNAL_HANDLER)
    {
        return false;
    }
    if (section.IsEntered())
    {
        m_log.m_output.SetLineLength(line.GetLength());
        if (!PrepareOutput(caller))
        {
            return false;
        }
    }
    char prefix[LogEntry::kMaxPrefixSize];
    const char* const prefixEnd = line.ComposePrefix(m_log.m_clock.WriteStampSignalSafe(prefix));
    constexpr std::size_t kMaxRows = kMaxDumpedBytes / HexDump::kBytesPerRow;
    char rows[1 + kMaxRows * HexDump::kMaxRowLength];
    char* rowsEnd = rows;
    *rowsEnd++ = '\n';
    for (std::size_t row = 0; dump != nullptr && row < std::min(dump->GetRowCount(), kMaxRows); ++row)
    {
        rowsEnd = dump->ComposeRow(rowsEnd, row);
    }
    return Put({{{prefix, prefixEnd}, line.GetSource(), line.GetMessage(), {rows, rowsEnd}}}, section.IsEntered());
}

bool LogEmergency::Put(const std::array<std::string_view, LogFile::kMaxPieces>& pieces, bool hasSection) const
{
    if (!hasSection)
    {
        m_log.m_output.WriteLinesOfOwner(*LogOutput::WaitLimit());
        return m_log.m_output.WriteBesideOwner(pieces);
    }
    std::size_t length = 0;
    for (const std::string_view piece : pieces)
    {
        length += piece.size();
    }
    char* place = m_log.m_buffersDump.load(std::memory_order_relaxed) ? m_log.m_output.Reserve(length) : nullptr;
    if (place == nullptr)
    {
        m_log.m_output.WritePastBuffer(pieces);
        return m_log.m_output.IsOpen();
    }
    for (const std::string_view piece : pieces)
    {
        place += piece.copy(place, piece.size());
    }
    m_log.m_output.Commit(length);
    return true;
}

bool LogEmergency::PrepareOutput(Caller caller) const
{
    LogOutput& output = m_log.m_output;
    // In a handler names and files are the interrupted code's, and what it is flushing right now it writes itself.
    const bool isOthers = caller == Caller::SIGNAL_HANDLER && (!output.IsOpen() || output.IsFlushing());
    if (!isOthers && !m_log.m_buffersDump.load(std::memory_order_relaxed))
    {
        output.WriteBuffered();
    }
    return caller == Caller::SIGNAL_HANDLER ? output.IsOpen() : m_log.PrepareOutputSource();
}
