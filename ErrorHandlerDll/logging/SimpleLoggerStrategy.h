// One file under the logger's name, opened in a fixed mode whenever it is not open.
#ifndef ERRORHANDLERDLL_LOGGING_SIMPLELOGGERSTRATEGY_H
#define ERRORHANDLERDLL_LOGGING_SIMPLELOGGERSTRATEGY_H

#include "ErrorHandlerDll/logging/FileLoggerStrategy.h"
#include "QV/BaseString.h"

class SimpleLoggerStrategy : public FileLoggerStrategy
{
public:
    SimpleLoggerStrategy(FileLogger* logger, const QV::BaseString<char>& mode, ZelvoReaderLoggingStrategy type);

    bool PrepareOutputSource() override;

private:
    QV::BaseString<char> m_fileMode;
};

#endif
