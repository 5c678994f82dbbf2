// One file under the logger's name, opened in the same way whenever it is not open.
#ifndef ERRORHANDLERDLL_LOGGING_SIMPLELOGGERSTRATEGY_H
#define ERRORHANDLERDLL_LOGGING_SIMPLELOGGERSTRATEGY_H

#include "ErrorHandlerDll/logging/FileLoggerStrategy.h"

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
