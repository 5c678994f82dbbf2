// The two conventions of the handling code: a line in the log when a function is entered and when it returns, and a last
// error that tells when the handling itself failed. A function that follows them reads
//
//   RunTraced([&] { ... }, Here());
#ifndef ERRORHANDLERDLL_FUNCTIONTRACE_H
#define ERRORHANDLERDLL_FUNCTIONTRACE_H

#include "ErrorHandlerDll/logging/ProcessLog.h"

inline constexpr int kTraceLevel = 5;
inline constexpr unsigned int kTraceMask = 0x20;

struct TracePoint
{
    const char* file;
    int line;
    const char* function;
};

// The place in the source that calls it. Builtins, because Clang 14 has no std::source_location.
constexpr TracePoint Here(const char* file = __builtin_FILE(), int line = __builtin_LINE(),
                          const char* function = __builtin_FUNCTION())
{
    return {file, line, function};
}

void WriteFunctionTrace(const TracePoint& point, const char* message);

void RecordHandlerFailure() noexcept;

// A catch clause and no scope guard: when nobody further out catches, the process ends without unwinding, and the last error
// must be set by then. The filter comes first: the trace is off as a rule.
template <class Body>
void RunTraced(const Body& body, const TracePoint& exit, const TracePoint& entry = Here())
{
    try
    {
        if (gFileLogger.CanWrite(kTraceLevel, kTraceMask))
        {
            WriteFunctionTrace(entry, "[Entering]");
        }
        body();
        if (gFileLogger.CanWrite(kTraceLevel, kTraceMask))
        {
            WriteFunctionTrace(exit, "[Exiting]");
        }
    }
    catch (...)
    {
        RecordHandlerFailure();
        throw;
    }
}

#endif
