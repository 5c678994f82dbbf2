// The plain functions of the library: logging, texts of error codes, raising, warnings.
//
// Conventions, unless a function says otherwise:
//   texts    NUL-terminated 8-bit strings; a null pointer counts as the empty text; the library copies what it needs
//   threads  any thread, at any time
//   throws   std::bad_alloc when memory runs out, with no lock held and nothing half done; nothing else
//   errno    left as it was
//   signals  not async-signal-safe
// C hosts: an exception passes through the C frames that lead to the call. Compile them with -fexceptions, or call RaiseError
// and RaiseErrorVar from C++ only.
//
// Usable from C11 and C++17 on.
#ifndef ERRORHANDLERDLL_ERRORHANDLERDLL_H
#define ERRORHANDLERDLL_ERRORHANDLERDLL_H

#include <stdarg.h>
#include <stdbool.h>
#include <stdint.h>

#include "ErrorCodes.h"
#include "Export.h"
#include "Version.h"

ERRORHANDLERDLL_EXTERN_C_BEGIN

// ---- Logging ----------------------------------------------------------------------------------------------------------
//
// One log for the whole process, disabled until InitialiseLogging enables it. Each call below writes one entry:
//
//   16/11/26 15:38:45.007 - WARNING    - [ThreadID: 4711] - <source><message>
//
// Source and message are joined as they are: a source usually ends in " - ". A message may hold line feeds; its further lines
// carry no prefix. An entry is written when logging is enabled, its level is at most the logger's and its mask shares a bit
// with the logger's; what is filtered out costs no lock, no copy and no formatting.

// Switches logging on or off and sets filter and file.
//   level     highest level that is written (ZR_LOG_...)
//   mask      categories that are written
//   fileName  path of the log file. Another name than the current one closes the open file at once; the next entry opens the
//             new one. With LOGGING_STRATEGY_FILE_SIZE it names the series: "reader.log" gives "reader.1.log" and so on.
ERRORHANDLERDLL_API void InitialiseLogging(bool enable, int level, unsigned int mask, const char* fileName);

// The path of the current log file; with LOGGING_STRATEGY_FILE_SIZE that of the numbered file.
//   returns a pointer into the logger, never null, valid until the name next changes (InitialiseLogging with another name, or
//           a rotation): copy the text at once
ERRORHANDLERDLL_API const char* GetLogFilename(void);

// Flushes and closes the log file. Logging stays enabled: the next entry opens the file again.
ERRORHANDLERDLL_API void ShutdownLogging(void);

// Writes one entry.
//   returns true when it was written or filtered out, false when no log file could be opened (the entry is dropped)
ERRORHANDLERDLL_API bool LogMessage(int level, unsigned int mask, const char* source, const char* message);

// Writes one entry whose message is formatted as by printf; of any length. A format that fails (see vsnprintf) gives the
// empty message. Result as LogMessage.
ERRORHANDLERDLL_API bool LogFormatted(int level, unsigned int mask, const char* source, const char* format, ...)
    ERRORHANDLERDLL_PRINTF(4, 5);

// Writes one entry: the message, a line feed, and a dump of the buffer, 16 bytes a line:
//
//   48 65 6C 6C 6F 2C 20 77 6F 72 6C 64 21 25 0D 0A : Hello, world!...
//
//   length  bytes to dump; 0 or less, or a null buffer, dumps nothing
// Result as LogMessage.
ERRORHANDLERDLL_API bool LogMessageAndBufferAsHex(int level, unsigned int mask, const char* source, const char* message,
                                                  const unsigned char* buffer, int length);

// Sets flush interval, strategy, size limit and `reserved`; level and mask are not touched. Closes the open file, even when
// nothing changes; the next entry opens it in the way of the new strategy. The file name stays: after numbered files, one of
// the other strategies goes on with the numbered name. A null pointer does nothing.
// When memory runs out, the flush interval is set, the file closed, and the next entry installs LOGGING_STRATEGY_APPEND.
ERRORHANDLERDLL_API void SetLoggingOptions(LoggingSettings* settings);

// Fills all six fields with the settings in force. `maxFileSize` is 0 with another strategy than LOGGING_STRATEGY_FILE_SIZE.
// A null pointer does nothing.
ERRORHANDLERDLL_API void GetLoggingOptions(LoggingSettings* settings);

ERRORHANDLERDLL_EXTERN_C_END

#endif
