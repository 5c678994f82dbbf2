#include "ErrorHandlerDll/logging/SimpleLoggerStrategy.h"

#include "ErrorHandlerDll/logging/FileLogger.h"

SimpleLoggerStrategy::SimpleLoggerStrategy(FileLogger* logger, const QV::BaseString<char>& mode,
                                           ZelvoReaderLoggingStrategy type)
    : FileLoggerStrategy(logger, type), m_fileMode(mode)
{
}

bool SimpleLoggerStrategy::PrepareOutputSource()
{
    if (!m_logger->IsLogFileOpen())
    {
        m_logger->OpenLogFile(m_fileMode);
    }
    return true;
}
