// What the logger asks before every line: make the output ready. The one thing about the log that varies.
#ifndef ERRORHANDLERDLL_LOGGING_FILELOGGERSTRATEGY_H
#define ERRORHANDLERDLL_LOGGING_FILELOGGERSTRATEGY_H

#include "ErrorHandlerDll/ErrorCodes.h"

class FileLogger;

class FileLoggerStrategy
{
public:
    FileLoggerStrategy(FileLogger* logger, ZelvoReaderLoggingStrategy type) : m_logger(logger), m_strategyType(type) {}
    FileLoggerStrategy(const FileLoggerStrategy&) = delete;
    FileLoggerStrategy& operator=(const FileLoggerStrategy&) = delete;
    virtual ~FileLoggerStrategy() = default;

    // Called with the logger's critical section held and the line composed. Decides the file name, opens and switches files.
    // Returns whether the line may be written.
    virtual bool PrepareOutputSource() = 0;

    ZelvoReaderLoggingStrategy GetType() const { return m_strategyType; }

protected:
    FileLogger* m_logger; // owns this strategy
    ZelvoReaderLoggingStrategy m_strategyType;
};

#endif
