// The log: one text file for every thread of the process, one entry per call. Hosts reach the one instance, gFileLogger,
// through the exported functions only. The way of an entry:
//
//   filter    FileLogger::CanWrite           stamp    LineClock            write   LogFile
//   section   LogSectionScope                compose  LogEntry              fork    LogFork
//   rotate    FileSizeLoggerStrategy         buffer   LogOutput            emergency   LogEmergency
//
// One recursive critical section serialises the writers. Operations that need it held by their caller say so.
#ifndef ERRORHANDLERDLL_LOGGING_FILELOGGER_H
#define ERRORHANDLERDLL_LOGGING_FILELOGGER_H

#include "ErrorHandlerDll/ErrorCodes.h"
#include "ErrorHandlerDll/logging/FileSizeLoggerStrategy.h"
#include "ErrorHandlerDll/logging/LineClock.h"
#include "ErrorHandlerDll/logging/LogEmergency.h"
#include "ErrorHandlerDll/logging/LogFork.h"
#include "ErrorHandlerDll/logging/LogOutput.h"
#include "QV/BaseString.h"
#include "QV/SignalSafeScope.h"
#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <atomic>
#include <cstdint>

class LogEntry;

class FileLogger
{
public:
    FileLogger();

    virtual ~FileLogger() { Retire(); }

    // Flushes and closes the file. Threads that still log afterwards, as at the end of a process, have their entries
    // dropped: the object stays. Waits for others no longer than an emergency. A thread that is inside meanwhile and does
    // not come out keeps what it works on.
    void Retire();

    // In an emergency without the section these do nothing.
    void Initialise(bool enable, int level, unsigned int mask, const QV::BaseString<char>& fileName);
    void Shutdown();
    void SetOptions(LoggingSettings* settings);
    void GetOptions(LoggingSettings* settings);

    bool IsEnabled() const { return m_enabled.load(std::memory_order_relaxed); }

    // Null in an emergency without the section, and when the logger is retired.
    const char* GetLogFileName();

    // The filter. Reads without the section: an entry that is being logged while the settings change may be taken by either.
    bool CanWrite(int level, unsigned int mask) const
    {
        return level <= m_logLevel.load(std::memory_order_relaxed) &&
               (mask & m_filterMask.load(std::memory_order_relaxed)) != 0;
    }

    // Writes one entry, which the filter has let pass.
    //   returns false when no file could be opened
    bool Write(const LogEntry& line);

    // Writes what is buffered. The caller holds the section; in an emergency it may be without, and nothing is written then.
    void FlushLogFile();

    // Enters the section. In an emergency it is waited for no longer than the emergency may wait: its owner may be stopped
    // for ever.
    //   returns whether it was entered, which is always so but in an emergency; only then it must be left
    bool EnterCriticalSection(bool isInEmergency = QV::SignalSafeScope::IsActive())
    {
        const ZelvoWinAPI::Entry entry =
            isInEmergency ? ZelvoWinAPI::TryEnterCriticalSection(&m_criticalSection, QV::SignalSafeScope::WaitLeftMs())
                          : ZelvoWinAPI::EnterCriticalSection(&m_criticalSection);
        if (entry == ZelvoWinAPI::Entry::TAKEN_OVER) [[unlikely]]
        {
            Emergency().ForgetInterruptedCall();
        }
        return entry != ZelvoWinAPI::Entry::REFUSED;
    }
    void LeaveCriticalSection() { ZelvoWinAPI::LeaveCriticalSection(&m_criticalSection); }

    // What crash dumps do with the log.
    LogEmergency Emergency() { return LogEmergency(*this); }

    // How long the end of a process, and a fork, wait for a thread that does not leave the section, and for a file that
    // takes nothing.
    static constexpr int kMaxWaitMs = 500;

private:
    friend class LogEmergency;
    friend class LogFork;

    template <class Change>
    void ChangeSettings(const Change& change);
    bool WriteLine(const LogEntry& line);
    void WriteLongLine(const LogEntry& line);
    bool PrepareOutputSource() { return m_strategy.load()->PrepareOutputSource() && m_output.IsOpen(); }

    // Categories that are written: none while logging is off, and before the logger is constructed. So the filter looks at
    // two words only.
    std::atomic<unsigned int> m_filterMask{0};
    std::atomic<int> m_logLevel{0};
    std::atomic<unsigned int> m_logMask{ZR_LOG_ALL_CATEGORIES};
    std::atomic<bool> m_enabled{false};
    std::atomic<bool> m_retired{false}; // read by threads that come too late, guarded by the section
    std::atomic<bool> m_busy{false};    // the section's owner is in the middle of something
    std::atomic<bool> m_buffersDump{false};
    ZelvoWinAPI::_CRITICAL_SECTION m_criticalSection;
    LoggingSettings m_settings = {}; // without level and mask
    unsigned int m_linesSinceFlush = 0;
    SimpleLoggerStrategy m_oneFile{&m_output, false};
    FileSizeLoggerStrategy m_numberedFiles{&m_output, 0};
    std::atomic<FileLoggerStrategy*> m_strategy{&m_oneFile}; // one of these two
    LineClock m_clock;
    LogOutput m_output;
};

// Holds the logger's critical section for a scope; in an emergency perhaps not.
class LogSectionScope
{
public:
    explicit LogSectionScope(FileLogger& logger) : m_logger(logger), m_entered(logger.EnterCriticalSection()) {}
    ~LogSectionScope()
    {
        if (m_entered) [[likely]]
        {
            m_logger.LeaveCriticalSection();
        }
    }
    LogSectionScope(const LogSectionScope&) = delete;
    LogSectionScope& operator=(const LogSectionScope&) = delete;

    bool IsEntered() const { return m_entered; }

private:
    FileLogger& m_logger;
    bool m_entered;
};

#endif
