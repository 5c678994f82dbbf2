// The two conventions of the handling code: a line in the log when a function is entered and when it returns, and a last
// error that tells when the handling itself failed. A function that follows them reads
//
//   try
//   {
//       TRACE_ENTRY();
//       ...
//       TRACE_EXIT();
//   }
//   catch (...)
//   {
//       RecordHandlerFailure();
//       throw;
//   }
//
// A catch clause and no scope guard: when nobody further out catches, the process ends without unwinding, and the last error
// must be set by then.
#ifndef ERRORHANDLERDLL_FUNCTIONTRACE_H
#define ERRORHANDLERDLL_FUNCTIONTRACE_H

#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/ExceptionHandler.h"
#include "ErrorHandlerDll/FixedText.h"
#include "ErrorHandlerDll/Internal.h"
#include "ErrorHandlerDll/crash/DumpLog.h"

// Macros, because Clang 14 has no std::source_location.
#define TRACE_ENTRY() WriteFunctionTrace(__FILE__, __LINE__, __func__, "[Entering]")
#define TRACE_EXIT() WriteFunctionTrace(__FILE__, __LINE__, __func__, "[Exiting]")

inline constexpr int kTraceLevel = 5;
inline constexpr unsigned int kTraceMask = 0x20;
inline constexpr std::size_t kTracePrefixSize = 512;

// The filter comes first: the trace is off as a rule, and the prefix costs more than the rest of a handler.
inline void WriteFunctionTrace(const char* file, int line, const char* function, const char* message)
{
    if (gFileLogger.CanWrite(kTraceLevel, kTraceMask))
    {
        char prefix[kTracePrefixSize];
        FormatFixedText(prefix, sizeof prefix, "%s(%d) : %s() - ", file, line, function);
        if (QV::EmergencyScope::IsActive())
        {
            Crash::LogLine(kTraceLevel, kTraceMask, prefix, message);
        }
        else
        {
            LogMessage(kTraceLevel, kTraceMask, prefix, message);
        }
    }
}

inline void RecordHandlerFailure() noexcept
{
    ExceptionHandler::SetLastErrorCode(ZR_ERROR_IN_EXCEPTION_HANDLER);
    ExceptionHandler::SetLastErrorString("An exception was raised within the exception handler.");
}

#endif
