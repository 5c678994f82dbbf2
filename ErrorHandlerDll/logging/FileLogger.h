// The log: one text file for every thread of the process, one entry per call. Filters, stamps and composes entries, and asks
// its strategy which file takes them. Hosts reach the one instance, gFileLogger, through the exported functions only.
//
// One recursive critical section serialises the writers. Operations that need it held by their caller say so.
#ifndef ERRORHANDLERDLL_LOGGING_FILELOGGER_H
#define ERRORHANDLERDLL_LOGGING_FILELOGGER_H

#include "ErrorHandlerDll/ErrorCodes.h"
#include "ErrorHandlerDll/logging/FileLoggerStrategy.h"
#include "ErrorHandlerDll/logging/LineClock.h"
#include "ErrorHandlerDll/logging/LogEmergency.h"
#include "ErrorHandlerDll/logging/LogFile.h"
#include "QV/BaseString.h"
#include "QV/EmergencyScope.h"
#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <atomic>
#include <cstdint>
#include <string_view>

class FileLogger
{
public:
    FileLogger();
    FileLogger(const FileLogger&) = delete;
    FileLogger& operator=(const FileLogger&) = delete;

    virtual ~FileLogger() { Retire(); }

    // Flushes and closes the file and gives all memory back. Threads that still log afterwards, as at the end of a process,
    // have their entries dropped: the object stays. A thread that is inside meanwhile and does not come out keeps what it
    // works on.
    void Retire();

    void Initialise(bool enable, int level, unsigned int mask, const QV::BaseString<char>& fileName);
    void Shutdown();
    void SetOptions(LoggingSettings* settings);
    void GetOptions(LoggingSettings* settings);

    bool IsEnabled() const { return m_enabled.load(std::memory_order_relaxed); }
    bool IsRetired() const { return m_retired.load(std::memory_order_relaxed); }

    // The filter. Reads without the section: an entry that is being logged while the settings change may be taken by either.
    bool CanWrite(int level, unsigned int mask) const
    {
        return level <= m_logLevel.load(std::memory_order_relaxed) &&
               (mask & m_filterMask.load(std::memory_order_relaxed)) != 0;
    }

    // Writes one entry. `message` is anything with size() and copy(out, size), like a string_view: it is copied once,
    // straight into the line.
    //   returns true when written or filtered out, false when no file could be opened
    // Not inlined: in the caller its stack frame would make the filtered call, the most frequent of all, a third longer.
    template <class Message>
    [[gnu::noinline]] bool Write(int level, unsigned int mask, std::string_view source, Message message);

    // Enters the section. In an emergency it is waited for no longer than the emergency may wait: its owner may be stopped
    // for ever.
    //   returns whether it was entered, which is always so but in an emergency; only then it must be left
    bool EnterCriticalSection()
    {
        const ZelvoWinAPI::Entry entry =
            QV::EmergencyScope::IsActive()
                ? ZelvoWinAPI::TryEnterCriticalSection(&m_criticalSection, QV::EmergencyScope::WaitLeftMs())
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

    // Around a fork: the child of a busy process must be able to log, and nothing buffered may be written by both.
    void BeforeFork();
    void AfterForkInParent();
    void AfterForkInChild();

    // ---- What the strategies use, and the exception handler around its blocks. The caller holds the section. ----

    bool IsLogFileOpen() const { return m_file.IsOpen(); }
    void OpenLogFile(const QV::BaseString<char>& mode);
    void CloseLogFile() { m_file.Close(); }
    void FlushLogFile();
    bool FlushBeforeLeaving(); // returns false when lines cannot be written now, and would be lost with the file
    int GetFileSize() const { return m_file.GetSize(); }
    const QV::BaseString<char>& GetLogFileName() const { return m_logFileName; }
    void SetLogFileName(const QV::BaseString<char>& name);
    // Length in bytes of the line about to be written, its line feed included.
    std::size_t GetCurrentLineLength() const { return m_currentLineLength; }

private:
    friend class LogEmergency;

    // A buffer for long lines that is larger is given back after each: one huge dump must not cost a host memory for years.
    static constexpr std::size_t kMostKeptForLines = std::size_t{1024} * 1024;

    template <class Message>
    bool WriteLine(int level, std::string_view source, const Message& message);
    void CountLine();
    bool PrepareOutputSource();

    void DeleteStrategy();

    void Disable();

    // Categories that are written: none while logging is off, and before the logger is constructed. So the filter looks at
    // two words only.
    std::atomic<unsigned int> m_filterMask{0};
    std::atomic<int> m_logLevel{0};
    ZelvoWinAPI::_CRITICAL_SECTION m_criticalSection;
    QV::BaseString<char> m_logFileName;
    std::uint32_t m_reserved = 0;
    std::atomic<unsigned int> m_logMask{ZR_LOG_ALL_CATEGORIES};
    std::atomic<bool> m_enabled{false};
    unsigned int m_flushInterval;
    LogFile m_file;
    unsigned int m_linesSinceFlush = 0;
    QV::BaseString<char> m_currentLine; // only of a line too long for the file's buffer, where the others are composed
    std::size_t m_currentLineLength = 0;
    std::atomic<FileLoggerStrategy*> m_strategy{nullptr}; // owned
    LineClock m_clock;
    std::atomic<bool> m_buffersDump{false};
    std::atomic<bool> m_busy{false};    // the section's owner is in the middle of something
    std::atomic<bool> m_retired{false}; // read by threads that come too late, guarded by the section
};

// Holds the logger's critical section for a scope.
class LoggerSection
{
public:
    explicit LoggerSection(FileLogger& logger) : m_logger(logger), m_entered(logger.EnterCriticalSection()) {}
    ~LoggerSection()
    {
        if (m_entered) [[likely]]
        {
            m_logger.LeaveCriticalSection();
        }
    }
    LoggerSection(const LoggerSection&) = delete;
    LoggerSection& operator=(const LoggerSection&) = delete;

private:
    FileLogger& m_logger;
    bool m_entered;
};

#include "ErrorHandlerDll/logging/FileLoggerWrite.h"

#endif
