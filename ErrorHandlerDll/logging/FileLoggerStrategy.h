// What the logger asks before every line: make the output ready. The one thing about the log that varies.
#ifndef ERRORHANDLERDLL_LOGGING_FILELOGGERSTRATEGY_H
#define ERRORHANDLERDLL_LOGGING_FILELOGGERSTRATEGY_H

#include "ErrorHandlerDll/logging/LogOutput.h"

class FileLoggerStrategy
{
public:
    explicit FileLoggerStrategy(LogOutput* output) : m_output(output) {}
    FileLoggerStrategy(const FileLoggerStrategy&) = default;
    FileLoggerStrategy& operator=(const FileLoggerStrategy&) = default;
    virtual ~FileLoggerStrategy() = default;

    // Called with the logger's critical section held and the line measured. Decides the file name, opens and switches files.
    // Returns whether the line may be written.
    virtual bool PrepareOutputSource() = 0;

protected:
    LogOutput* m_output; // outlives this strategy
};

#endif
