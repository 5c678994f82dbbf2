// The log: one text file for every thread of the process, one entry per call. Filters, stamps and composes entries, and asks
// its strategy which file takes them. Hosts reach the one instance, gFileLogger, through the exported functions only.
//
// One recursive critical section serialises the writers. Operations that need it held by their caller say so.
#ifndef ERRORHANDLERDLL_LOGGING_FILELOGGER_H
#define ERRORHANDLERDLL_LOGGING_FILELOGGER_H

#include "ErrorHandlerDll/ErrorCodes.h"
#include "ErrorHandlerDll/logging/FileLoggerStrategy.h"
#include "ErrorHandlerDll/logging/LineClock.h"
#include "ErrorHandlerDll/logging/LogFile.h"
#include "QV/BaseString.h"
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

    // Flushes and closes the file. Threads that still log afterwards, as at the end of a process, have their entries
    // dropped.
    virtual ~FileLogger();

    void Initialise(bool enable, int level, unsigned int mask, const QV::BaseString<char>& fileName);
    void SetOptions(LoggingSettings* settings);
    void GetOptions(LoggingSettings* settings);

    bool IsEnabled() const { return m_enabled.load(std::memory_order_relaxed); }

    // The filter. Reads without the section: an entry that is being logged while the settings change may be taken by either.
    bool CanWrite(int level, unsigned int mask) const
    {
        return IsEnabled() && level <= m_logLevel.load(std::memory_order_relaxed) &&
               (mask & m_logMask.load(std::memory_order_relaxed)) != 0;
    }

    // Writes one entry. `message` is anything with size() and copy(out, size), like a string_view: it is copied once,
    // straight into the line.
    //   returns true when written or filtered out, false when no file could be opened
    template <class Message>
    bool Write(int level, unsigned int mask, std::string_view source, const Message& message);

    void EnterCriticalSection() { ZelvoWinAPI::EnterCriticalSection(&m_criticalSection); }
    void LeaveCriticalSection() { ZelvoWinAPI::LeaveCriticalSection(&m_criticalSection); }

    // Around a fork: the child of a busy process must be able to log, and nothing buffered may be written by both.
    void BeforeFork();
    void AfterForkInParent() { LeaveCriticalSection(); }
    void AfterForkInChild();

    // ---- What the strategies use, and the exception handler around its blocks. The caller holds the section. ----

    bool IsLogFileOpen() const { return m_file.IsOpen(); }
    void OpenLogFile(const QV::BaseString<char>& mode);
    void CloseLogFile() { m_file.Close(); }
    void FlushLogFile() { m_file.Flush(); }
    int GetFileSize() const { return m_file.GetSize(); }
    const QV::BaseString<char>& GetLogFileName() const { return m_logFileName; }
    void SetLogFileName(const QV::BaseString<char>& name);
    const QV::BaseString<char>& GetCurrentLine() const { return m_currentLine; }

private:
    template <class Message>
    void CreateCurrentLine(int level, std::string_view source, const Message& message);
    bool WriteCurrentLineToFile();
    bool PrepareOutputSource();

    std::atomic<bool> m_enabled{false};
    ZelvoWinAPI::_CRITICAL_SECTION m_criticalSection;
    QV::BaseString<char> m_logFileName;
    std::atomic<int> m_logLevel{0};
    std::uint32_t m_reserved = 0;
    std::atomic<unsigned int> m_logMask{ZR_LOG_ALL_CATEGORIES};
    unsigned int m_flushInterval;
    LogFile m_file;
    unsigned int m_linesSinceFlush = 0;
    QV::BaseString<char> m_currentLine;
    FileLoggerStrategy* m_strategy = nullptr;
    LineClock m_clock;
    std::atomic<bool> m_destroyed{false}; // read by threads that come too late, guarded by the section
};

// Holds the logger's critical section for a scope.
class LoggerSection
{
public:
    explicit LoggerSection(FileLogger& logger) : m_logger(logger) { m_logger.EnterCriticalSection(); }
    ~LoggerSection() { m_logger.LeaveCriticalSection(); }
    LoggerSection(const LoggerSection&) = delete;
    LoggerSection& operator=(const LoggerSection&) = delete;

private:
    FileLogger& m_logger;
};

#include "ErrorHandlerDll/logging/FileLoggerWrite.h"

#endif
