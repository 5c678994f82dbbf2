// What a host calls in the catch clauses at its API boundary, and the last error that is left behind. C++17 on.
#ifndef ERRORHANDLERDLL_EXCEPTIONHANDLER_H
#define ERRORHANDLERDLL_EXCEPTIONHANDLER_H

#include "ErrorCodes.h"
#include "Export.h"

#include <exception>
#include <new>

class HalvikException;
class StructuredException;

// Each handler records the error as the last error, writes it to the log as one block that no other thread's lines can
// split, flushes the log, and calls the error callback. Catch clauses choose the handler, the most special first:
//
//   catch (HalvikException* exception)     { ExceptionHandler::HandleHalvikException(kName, exception); ... }
//   catch (StructuredException& exception) { ExceptionHandler::HandleStructuredException(kName, exception, false); }
//   catch (std::bad_alloc& exception)      { ExceptionHandler::HandleBadAllocException(kName, exception, false); }
//   catch (std::exception& exception)      { ExceptionHandler::HandleSTDException(kName, exception, false); }
//   catch (...)                            { ExceptionHandler::HandleUnknownException(kName, false); }
//
// Parameters common to the handlers:
//   functionName  source text of the log lines and location of a returned exception, used unchanged: a name that should not
//                 touch the text behind it ends in " - "
//   propagate     true: the error is to travel on
// Common to the handlers, unless one says otherwise:
//   returns  with propagate, a new HalvikException that is already marked handled: the caller throws it on, whoever catches
//            it last deletes it; null otherwise
//   log      with logging off no block is written; last error and callback work all the same
//   throws   whatever the writer, the callback or an allocation throws. The last error is then
//            ZR_ERROR_IN_EXCEPTION_HANDLER with "An exception was raised within the exception handler."; only when the
//            returned exception itself cannot be allocated it stays that of the error. The log's lock is never left held.
//   threads  any thread; the last error is one for the process, written without a lock
//   errno    left as it was
//   signals  not async-signal-safe, but for HandleStructuredException without propagate; see LinuxStructuredException.h
class ExceptionHandler
{
public:
    // Installs the callback that receives each error as it is reported; null removes it. Set it before other threads can
    // handle errors. The callback runs without the log's lock and may log. When HandleStructuredException is called in a
    // signal handler it does so without the heap: LogFormatted then cuts its message to 1023 bytes, and
    // LogMessageAndBufferAsHex dumps at most 512 bytes.
    static ERRORHANDLERDLL_API void SetErrorCallback(ZelvoReaderErrorCallback callback, void* param);

    // Set the last error. The text is copied, cut to 511 bytes but never inside a UTF-8 sequence, zero bytes behind; null is
    // the empty text; a text inside m_lastErrorString itself is taken as it is. Neither throws.
    static ERRORHANDLERDLL_API void SetLastErrorCode(ZelvoReaderErrorCode code);
    static ERRORHANDLERDLL_API void SetLastErrorString(const char* text);

    // A writer for GenericHandleException: logs `param` as a text under `source` at level ZR_LOG_ERROR, for all categories;
    // a null param logs nothing.
    static ERRORHANDLERDLL_API void OnWriteErrorLog_WriteString(const char* source, void* param);

    // Handles an error of the host's own kind.
    //   writer       logs what the block is to say, called with (functionName, writerParam) while the log's lock is held and
    //                only when logging is on, whatever level and mask filter; null: the block is only the separator
    static ERRORHANDLERDLL_API HalvikException* GenericHandleException(const char* functionName, ZelvoReaderErrorCode code,
                                                                       const char* message, bool propagate,
                                                                       void (*writer)(const char*, void*),
                                                                       void* writerParam);

    // For catch (...): code ZR_ERROR_UNKNOWN with its built-in text, even when an override is set.
    static ERRORHANDLERDLL_API HalvikException* HandleUnknownException(const char* functionName, bool propagate);

    // Code ZR_ERROR_UNKNOWN with its built-in text, " - " and what(). When that text cannot be allocated, std::bad_alloc
    // leaves and the last error is untouched. A std::bad_alloc belongs to HandleBadAllocException.
    static ERRORHANDLERDLL_API HalvikException* HandleSTDException(const char* functionName, std::exception& exception,
                                                                   bool propagate);

    // Code ZR_ERROR_MEMORY_ALLOCATION with its built-in text, filled from what(), even when an override is set.
    static ERRORHANDLERDLL_API HalvikException* HandleBadAllocException(const char* functionName, std::bad_alloc& exception,
                                                                        bool propagate);

    // Code: the signal's si_code (not a code of the catalogue, though the numbers overlap). The block is the context dump,
    // which goes to standard output too. In a thread that has faulted in a dump where nothing could be caught, it only sets
    // ZR_ERROR_IN_EXCEPTION_HANDLER and returns null, with propagate, too.
    static ERRORHANDLERDLL_API ERRORHANDLERDLL_NOPLT HalvikException*
    HandleStructuredException(const char* functionName, StructuredException& exception, bool propagate);

    // Reports the error and marks it handled; an exception that is handled already only leaves a "[propagating]" line at
    // level ZR_LOG_DEBUG_LOW. Neither deletes nor throws `exception`, which must not be null.
    static ERRORHANDLERDLL_API void HandleHalvikException(const char* functionName, HalvikException* exception);

    // The last error and the callback, for hosts to read; all zero until the first error. Nothing resets them.
    static ERRORHANDLERDLL_API ZelvoReaderErrorCallback m_errorCallback;
    static ERRORHANDLERDLL_API void* m_errorCallbackParam;
    static ERRORHANDLERDLL_API ZelvoReaderErrorCode m_lastErrorCode;
    static ERRORHANDLERDLL_API char m_lastErrorString[512];
};

#endif
