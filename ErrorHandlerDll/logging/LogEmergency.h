// Emergency: the log when something has gone wrong, everything that a crash dump, or a signal handler that logs, does with
// it. Async-signal-safe, whatever this or another thread was doing in the logger. Reached as gFileLogger.Emergency().
#ifndef ERRORHANDLERDLL_LOGGING_LOGEMERGENCY_H
#define ERRORHANDLERDLL_LOGGING_LOGEMERGENCY_H

#include "ErrorHandlerDll/logging/LogFile.h"

#include <array>
#include <cstdint>

class FileLogger;
class LogEntry;

class LogEmergency
{
public:
    explicit LogEmergency(FileLogger& logger) : m_log(logger) {}

    // How deep the calling thread is in the logger's section, for code that leaves scopes by a jump.
    unsigned int GetSectionDepth() const;
    void RestoreSectionDepth(unsigned int depth) const;

    // While this thread dumps, the section is its own only as long as its code runs on the stack [low, high), and for
    // `milliseconds` (see ZelvoWinAPI::SetLease).
    bool SetLease(std::uintptr_t low, std::uintptr_t high, int milliseconds, std::int64_t& lease) const;
    void EndLease(std::int64_t lease) const;
    bool IsInCriticalSection() const;

    // The caller holds the section, and is certain that the code of this thread which was interrupted inside the logger will
    // never go on, or that a dump was left by a jump. Afterwards the logger is as if the call had been cut off: whole lines
    // that it took are kept or have been written once, and name, strategy and numbers are usable. The section is the
    // caller's to give back (RestoreSectionDepth, LeaveCriticalSection).
    void ForgetInterruptedCall() const;

    // From here to EndDump the lines of a dump wait in the buffer for Flush, so that many of them go out with one write.
    // What cannot be written by its end is lost. The caller holds the section meanwhile.
    void BeginDump() const;
    void EndDump() const;
    void Flush() const;

    enum class Caller
    {
        DUMP,           // the interrupted code is lost
        SIGNAL_HANDLER, // the interrupted code goes on; between two files the line is dropped
    };

    // Writes an entry straight to the file, or into the buffer (BeginDump). Of a hex dump only the first bytes are written
    // in a dump, and a longer one is dropped in a handler. Without the section it touches nothing but the open descriptor,
    // and claims the lines that wait in the buffer of its owner.
    //   returns false when there is no file, or no end of waiting for it
    bool Write(const LogEntry& line, Caller caller) const;

    static constexpr std::size_t kMaxDumpedBytes = 512;

private:
    bool PrepareOutput(Caller caller) const;
    bool Put(const std::array<std::string_view, LogFile::kMaxPieces>& pieces, bool hasSection) const;

    FileLogger& m_log;
};

#endif
