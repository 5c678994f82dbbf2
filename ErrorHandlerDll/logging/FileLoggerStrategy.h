// What the logger asks before every line: make the output ready. The one thing about the log that varies.
#ifndef ERRORHANDLERDLL_LOGGING_FILELOGGERSTRATEGY_H
#define ERRORHANDLERDLL_LOGGING_FILELOGGERSTRATEGY_H

#include "ErrorHandlerDll/logging/LogOutput.h"

class FileLoggerStrategy
{
public:
    explicit FileLoggerStrategy(LogOutput* output) : m_output(output) {}
    virtual ~FileLoggerStrategy() = default;

    // Called with the logger's critical section held and the line measured. Decides the file name, opens and switches files.
    // Returns whether the line may be written.
    virtual bool PrepareOutputSource() = 0;

protected:
    LogOutput* m_output; // outlives this strategy
};

// One file under the logger's name, opened in the same way whenever it is not open.
class SimpleLoggerStrategy : public FileLoggerStrategy
{
public:
    // `empties`: whether an opening empties the file.
    SimpleLoggerStrategy(LogOutput* output, bool empties) : FileLoggerStrategy(output), m_empties(empties) {}

    bool PrepareOutputSource() override
    {
        if (!m_output->IsOpen())
        {
            m_output->Open(m_empties);
        }
        return true;
    }

private:
    bool m_empties;
};

#endif
