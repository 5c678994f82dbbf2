#include "ErrorHandlerDll/FunctionTrace.h"

#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/ExceptionHandler.h"
#include "ErrorHandlerDll/FixedText.h"
#include "ErrorHandlerDll/crash/Dump.h"

namespace
{

constexpr std::size_t kPrefixSize = 512;

void Write(const TracePoint& point, const char* message)
{
    char prefix[kPrefixSize];
    FormatFixedText(prefix, sizeof prefix, "%s(%d) : %s() - ", point.file, point.line, point.function);
    if (Crash::Dump* const dump = Crash::Dump::Current())
    {
        dump->Log(kTraceLevel, kTraceMask, prefix, message);
    }
    else
    {
        LogMessage(kTraceLevel, kTraceMask, prefix, message);
    }
}

} // namespace

void WriteFunctionTrace(const TracePoint& point, const char* message)
{
    if (QV::SignalSafeScope::IsActive())
    {
        Crash::Dump::Run([&] { Write(point, message); });
    }
    else
    {
        Write(point, message);
    }
}

void RecordHandlerFailure() noexcept
{
    ExceptionHandler::SetLastErrorCode(ZR_ERROR_IN_EXCEPTION_HANDLER);
    ExceptionHandler::SetLastErrorString("An exception was raised within the exception handler.");
}
