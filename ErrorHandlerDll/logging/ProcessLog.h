// The one log of the process.
#ifndef ERRORHANDLERDLL_LOGGING_PROCESSLOG_H
#define ERRORHANDLERDLL_LOGGING_PROCESSLOG_H

#include "ErrorHandlerDll/logging/FileLogger.h"

// Where the logger lives from its construction on, which is in ErrorHandlerDll.cpp, where the order of construction matters.
// It is never destroyed, only retired: threads and objects of the host may still log when the library has ended.
union LoggerStorage
{
    constexpr LoggerStorage() : m_nothing(0) {}
    ~LoggerStorage() {}

    char m_nothing;
    FileLogger m_logger;
};
extern LoggerStorage gLoggerStorage;
inline constexpr FileLogger& gFileLogger = gLoggerStorage.m_logger;

#endif
