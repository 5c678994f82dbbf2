// Error codes, log levels, logging settings and callback types: everything that the functions and classes of the library
// take and give. Usable from C11 and C++17 on.
#ifndef ERRORHANDLERDLL_ERRORCODES_H
#define ERRORHANDLERDLL_ERRORCODES_H

#include <stdint.h>

#include "Export.h"

// The code of an error, 32 bits. Ranges are tested on the unsigned value:
//   0 to 195                  built in; each has a message template
//   0x10000 to 0x1FFFF        custom: the host registers their texts with AddCustomErrorMessage
//   0xC0000001 to 0xFFFFFFFF  structured exceptions
//   all others                invalid
// A host may convert any 32-bit value to this type; the constants below are only the named ones.
#ifdef __cplusplus
enum ZelvoReaderErrorCode : int32_t
#else
typedef enum ZelvoReaderErrorCode
#endif
{
    // Left as the last error when the handling code itself failed. It also makes the type signed in C, as it is in C++.
    ZR_ERROR_IN_EXCEPTION_HANDLER = -1,

    ZR_ERROR_NONE = 0,
    ZR_ERROR_STRING_BUFFER_TOO_SMALL = 25,
    ZR_ERROR_UNKNOWN_CODE = 195,

    ZR_CUSTOM_ERROR_FIRST = 0x10000,
    ZR_CUSTOM_ERROR_LAST = 0x1FFFF
}
#ifdef __cplusplus
;
#else
ZelvoReaderErrorCode;
#endif

ERRORHANDLERDLL_STATIC_ASSERT(sizeof(ZelvoReaderErrorCode) == 4, "error codes are 32 bits wide");

// Levels of log lines. Any other int is a level too and is shown by number; higher numbers are more detailed.
enum
{
    ZR_LOG_ERROR = 0,
    ZR_LOG_WARNING = 1,
    ZR_LOG_DEBUG_LOW = 2,
    ZR_LOG_DEBUG_HIGH = 3
};

// A mask with every category of log lines.
#define ZR_LOG_ALL_CATEGORIES 0xFFFFFFFFu

// How the log file is named and opened. Any other value is served like LOGGING_STRATEGY_APPEND.
#ifdef __cplusplus
enum ZelvoReaderLoggingStrategy : int32_t
#else
typedef enum ZelvoReaderLoggingStrategy
#endif
{
    LOGGING_STRATEGY_APPEND = 0,    // one file, appended to
    LOGGING_STRATEGY_OVERWRITE = 1, // one file, emptied each time it is opened
    LOGGING_STRATEGY_FILE_SIZE = 2  // numbered files, rotated by size
}
#ifdef __cplusplus
;
#else
ZelvoReaderLoggingStrategy;
#endif

// Settings of the logger; see SetLoggingOptions and GetLoggingOptions.
typedef struct LoggingSettings
{
    int32_t logLevel;       // highest level that is written; only read back, InitialiseLogging sets it
    uint32_t logMask;       // categories that are written; only read back, InitialiseLogging sets it
    uint32_t flushInterval; // the log is flushed after every (flushInterval + 1)th line; 0xFFFFFFFF: never by count
    ZelvoReaderLoggingStrategy strategy;
    uint32_t maxFileSize; // bytes; only for LOGGING_STRATEGY_FILE_SIZE: a file is left before it would reach this size
    uint32_t reserved;    // kept and given back, no effect
} LoggingSettings;

ERRORHANDLERDLL_STATIC_ASSERT(sizeof(LoggingSettings) == 24, "layout shared with hosts");

// Receives each error that a handler reports, on the thread that handles it.
//   message  the last error text itself, not a copy: 512 writable bytes, overwritten by the next error
//   param    as given to ExceptionHandler::SetErrorCallback
typedef void (*ZelvoReaderErrorCallback)(ZelvoReaderErrorCode code, char* message, void* param);

// Receives each warning after it has been logged, on the thread that warns. `text` is valid during the call only.
typedef void (*ZelvoReaderWarningCallback)(uint32_t warningCode, char* text, void* param);

#endif
