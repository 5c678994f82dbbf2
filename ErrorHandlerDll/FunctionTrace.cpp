#include "ErrorHandlerDll/FunctionTrace.h"

#include "ErrorHandlerDll/ExceptionHandler.h"
#include "ErrorHandlerDll/crash/Dump.h"
#include "ErrorHandlerDll/logging/LogEntry.h"
#include "QV/FixedText.h"

void WriteFunctionTrace(const TracePoint& point, const char* message)
{
    const auto write = [&]
    {
        char prefix[512]; // longer names are cut
        FormatFixedText(prefix, sizeof prefix, "%s(%d) : %s() - ", point.file, point.line, point.function);
        if (Crash::Dump* const dump = Crash::Dump::Current())
        {
            dump->Log(kTraceLevel, kTraceMask, prefix, message);
        }
        else
        {
            gFileLogger.Write(LogEntry(kTraceLevel, prefix, message));
        }
    };
    QV::SignalSafeScope::IsActive() ? static_cast<void>(Crash::Dump::Run(write)) : write();
}

void RecordHandlerFailure() noexcept
{
    ExceptionHandler::SetLastErrorCode(ZR_ERROR_IN_EXCEPTION_HANDLER);
    ExceptionHandler::SetLastErrorString("An exception was raised within the exception handler.");
}
