// The plain functions of the library: logging, texts of error codes, raising, warnings.
//
// Conventions, unless a function says otherwise:
//   texts    NUL-terminated 8-bit strings; a null pointer counts as the empty text; the library copies what it needs
//   threads  any thread, at any time
//   throws   std::bad_alloc when memory runs out, with no lock held and nothing half done; nothing else
//   errno    left as it was
//   signals  not async-signal-safe
// C hosts: an exception passes through the C frames that lead to the call. Compile them with -fexceptions, or call
// RaiseError and RaiseErrorVar from C++ only.
//
// Usable from C11 and C++17 on.
#ifndef ERRORHANDLERDLL_ERRORHANDLERDLL_H
#define ERRORHANDLERDLL_ERRORHANDLERDLL_H

#include "ErrorCodes.h"
#include "Export.h"
#include "Version.h"

#include <stdarg.h>
#include <stdbool.h>
#include <stdint.h>

ERRORHANDLERDLL_EXTERN_C_BEGIN

// ---- Logging ----------------------------------------------------------------------------------------------------------
//
// In a crash dump, and in what a host's handlers do within one, a call waits no longer than a second in all: for the
// logger's lock, which another thread may hold for ever, and for a log file that takes nothing, such as a pipe that nobody
// reads. Without the lock an entry goes straight to the open file, and InitialiseLogging, SetLoggingOptions and
// ShutdownLogging do nothing. There a formatted message is cut to 1,023 characters and a hex dump to 512 bytes. All other
// calls wait as long as it takes; fork and the end of the process half a second.
//
// One log for the whole process, disabled until InitialiseLogging enables it. LogMessage, LogFormatted and
// LogMessageAndBufferAsHex write one entry a call:
//
//   16/11/26 15:38:45.007 - WARNING    - [ThreadID: 4711] - <source><message>
//
// Source and message are joined as they are: a source usually ends in " - ". A message may hold line feeds; its further
// lines carry no prefix. An entry is written when logging is enabled, its level is at most the logger's and its mask shares
// a bit with the logger's; what is filtered out costs no lock, no copy and no formatting.

// Switches logging on or off and sets filter and file.
//   level     highest level that is written (ZR_LOG_...)
//   mask      categories that are written
//   fileName  path of the log file. Another name than the current one closes the open file at once; the next entry opens the
//             new one. With LOGGING_STRATEGY_FILE_SIZE it names the series: "reader.log" gives "reader.1.log" and so on, and
//             the empty name ".1.log". A new file gets the mode 0666 less the umask; symbolic links are followed, so choose
//             a folder in which nobody else may create the predictable names of a series. A file that ends inside a line, as
//             a killed process leaves it, is gone on with on a new line.
// Not from a signal handler that may have interrupted a call of the library, nor from an error callback that such a handler
// runs; it does nothing there.
ERRORHANDLERDLL_API void InitialiseLogging(bool enable, int level, unsigned int mask, const char* fileName);

// The path of the current log file; with LOGGING_STRATEGY_FILE_SIZE that of the numbered file.
//   returns a pointer into the logger, never null, valid until the name next changes (InitialiseLogging with another
//           name, or a rotation): copy the text at once; the empty text in a dump that cannot have the logger's lock
ERRORHANDLERDLL_API const char* GetLogFilename(void);

// Flushes and closes the log file. Logging stays enabled: the next entry opens the file again.
ERRORHANDLERDLL_API void ShutdownLogging(void);

// Writes one entry.
//   level   ZR_LOG_ERROR, ZR_LOG_WARNING, ZR_LOG_DEBUG_LOW, ZR_LOG_DEBUG_HIGH, or any other number: higher is more detailed
//   mask    the categories that the entry belongs to, a bit each, of the host's choice; ZR_LOG_ALL_CATEGORIES for all
//   source  where in the program the entry comes from, free text
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

// ---- Texts of error codes ---------------------------------------------------------------------------------------------
//
// Texts are looked up without a lock: lookups may run on any number of threads at once, but no registration beside them.
// Register before other threads use the library.

// Copies the text of `code` to `buffer`: for a built-in code its override or its template, unformatted; for a custom code
// the registered text or "Undefined custom error code"; for a structured code a text with the code and a "%08X" for the
// address; for all others "Invalid error code".
//   length   in: size of buffer in bytes, negative counts as too small; out: size needed, NUL included (always written)
//   returns  ZR_ERROR_NONE when copied, ZR_ERROR_STRING_BUFFER_TOO_SMALL when the buffer is too small (buffer untouched)
// Neither pointer may be null, but with a length of 0 the buffer is not looked at. Does not allocate, never throws.
ERRORHANDLERDLL_API ZelvoReaderErrorCode GetErrorString(ZelvoReaderErrorCode code, char* buffer, int* length);

// Replaces the template of a built-in code, for GetErrorString, RaiseError and RaiseErrorVar. The text must take the
// arguments that the template takes, in their order: the C library ends the process for a "%2$s" without its "%1$s",
// and for a "%n".
//   text     kept, not copied: must stay valid and unchanged until it is replaced, the overrides are reset or the library is
//            unloaded
//   returns  false, and changes nothing, when the code is not built in, the text is null, or its size with the NUL is no int
ERRORHANDLERDLL_API bool SetErrorMessage(ZelvoReaderErrorCode code, const char* text);

// Defines or replaces the text of a custom code, 0x10000 to 0x1FFFF.
//   text     kept, not copied: must stay valid and unchanged until it is replaced or the library is unloaded
//   returns  false, and changes nothing, when the code is not a custom one, the text is null, or its size with the NUL is
//            no int
ERRORHANDLERDLL_API bool AddCustomErrorMessage(ZelvoReaderErrorCode code, const char* text);

// Removes all overrides; custom texts stay. Always true. Never throws.
ERRORHANDLERDLL_API bool ResetErrorMessages(void);

// ---- Raising ----------------------------------------------------------------------------------------------------------

// Throws a new HalvikException (HalvikException.h) by pointer. Its message is the template or override of the code, filled
// from the arguments; for every code above ZR_ERROR_UNKNOWN_CODE it is the text of that code filled with the code, and the
// arguments are not used: raise custom codes with RaiseErrorVar. Message and location are cut to 511 bytes, never inside a
// UTF-8 sequence. A template that cannot be formatted (see vsnprintf) gives the empty message.
//   location  where it was raised, free text; it heads the message in the log, so it usually ends in " - "
//   ...       must fit the template, as with printf; CheckedRaise.h has the compiler check that
//   throws    HalvikException*, or std::bad_alloc when it cannot be allocated; never returns
ERRORHANDLERDLL_API ERRORHANDLERDLL_NORETURN void RaiseError(ZelvoReaderErrorCode code, const char* location, ...);

// The same with a list of arguments, which is left unconsumed, and with the text that GetErrorString gives for any code,
// custom and structured ones included, as template.
ERRORHANDLERDLL_API ERRORHANDLERDLL_NORETURN void RaiseErrorVar(ZelvoReaderErrorCode code, const char* location,
                                                                va_list arguments);

// ---- Warnings ---------------------------------------------------------------------------------------------------------

// Copies the template of a warning to `buffer`, "Invalid warning code" for an unknown one. Otherwise as GetErrorString.
//   code  0: an unknown warning, takes a text; 1: arm timeout failure, takes an int
ERRORHANDLERDLL_API ZelvoReaderErrorCode GetWarningString(uint32_t code, char* buffer, int* length);

// Installs the callback that receives each warning; null removes it. Not while another thread can warn. Never throws.
ERRORHANDLERDLL_API void SetWarningCallback(ZelvoReaderWarningCallback callback, void* param);

// Fills the template of the warning from the arguments, writes it to the log at level ZR_LOG_WARNING for all categories, and
// then calls the warning callback, whether or not the line was written. The text is never cut.
//   source  as for LogMessage
//   throws  also what the callback throws
ERRORHANDLERDLL_API void LogWarning(uint32_t code, const char* source, ...);

ERRORHANDLERDLL_EXTERN_C_END

#endif
