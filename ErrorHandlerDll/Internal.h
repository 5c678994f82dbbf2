// What the units of the library share and no host sees.
#ifndef ERRORHANDLERDLL_INTERNAL_H
#define ERRORHANDLERDLL_INTERNAL_H

#include "ErrorHandlerDll/MessageMap.h"
#include "ErrorHandlerDll/logging/FileLogger.h"

#include <string_view>

// Texts of custom codes, texts that replace those of built-in codes, and the one log of the process; all defined in
// ErrorHandlerDll.cpp, where the order of construction matters.
extern MessageMap gCustomErrorStrings;
extern MessageMap gOverriddenErrorStrings;

// Where the logger lives from its construction on. It is never destroyed, only retired: threads and objects of the host may
// still log when the library has ended.
union LoggerStorage
{
    constexpr LoggerStorage() : m_nothing(0) {}
    ~LoggerStorage() {}

    char m_nothing;
    FileLogger m_logger;
};
extern LoggerStorage gLoggerStorage;
inline constexpr FileLogger& gFileLogger = gLoggerStorage.m_logger;

// A null text from a host counts as the empty one.
inline std::string_view TextOrEmpty(const char* text)
{
    return text == nullptr ? std::string_view() : std::string_view(text);
}

#endif
