// The handlers that hosts call at their API boundary.
#include "ErrorHandlerDll/ExceptionHandler.h"

#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/ErrorRegistry.h"
#include "ErrorHandlerDll/FormattedText.h"
#include "ErrorHandlerDll/FunctionTrace.h"
#include "ErrorHandlerDll/HalvikException.h"
#include "ErrorHandlerDll/LinuxStructuredException.h"
#include "ErrorHandlerDll/crash/Dump.h"
#include "ErrorHandlerDll/logging/LogEntry.h"
#include "QV/ErrnoScope.h"

#include <cstring>

namespace
{

constexpr const char* kBlockSeparator = "----------------------";
constexpr std::string_view kCaughtPrefix = "[caught]: ";

using ErrorLogWriter = void (*)(const char*, void*);

void RecordError(ZelvoReaderErrorCode code, const char* message)
{
    ExceptionHandler::SetLastErrorCode(code);
    ExceptionHandler::SetLastErrorString(message);
}

void LogErrorLine(std::string_view source, std::string_view text)
{
    if (gFileLogger.CanWrite(ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES))
    {
        gFileLogger.Write(LogEntry(ZR_LOG_ERROR, source, text));
    }
}

// Makes it the last error, and logs the separator and what `writer` writes as one block that no other thread's lines can
// split.
void ReportError(ZelvoReaderErrorCode code, const char* message, const char* functionName, ErrorLogWriter writer,
                 void* writerParam)
{
    RecordError(code, message);
    if (gFileLogger.IsEnabled())
    {
        const LogSectionScope section(gFileLogger);
        LogErrorLine("", kBlockSeparator);
        writer(functionName, writerParam);
        gFileLogger.FlushLogFile();
    }
}

// The host gets the buffer of the last error itself, not a copy: the callback may change it.
void CallErrorCallback()
{
    if (ExceptionHandler::m_errorCallback != nullptr)
    {
        ExceptionHandler::m_errorCallback(ExceptionHandler::m_lastErrorCode, ExceptionHandler::m_lastErrorString,
                                          ExceptionHandler::m_errorCallbackParam);
    }
}

// Not inlined: the handlers may run on the small stack of a signal handler. The message is copied before memory is taken, as
// it may lie in the buffer that all structured exceptions share.
[[gnu::noinline]] HalvikException* MakePropagatedException(ZelvoReaderErrorCode code, const char* message,
                                                           const char* functionName)
{
    HalvikException exception(code, message, functionName);
    exception.SetHandled();
    return new HalvikException(exception);
}

HalvikException* HandleError(const char* functionName, ZelvoReaderErrorCode code, const char* message, bool propagate,
                             ErrorLogWriter writer, void* writerParam, const TracePoint& point = Here())
{
    const ErrnoScope errnoScope;
    ErrorText ownMessage; // the host may pass the text of the last error, which is overwritten below
    CopyFixedText(ownMessage, sizeof ownMessage, message);
    RunTraced(
        [&]
        {
            ReportError(code, ownMessage, functionName, writer, writerParam);
            CallErrorCallback();
        },
        point, point);
    return propagate ? MakePropagatedException(code, ownMessage, functionName) : nullptr;
}

void LogNothing(const char*, void*) {}

void LogCaughtException(const char* functionName, void* param)
{
    auto* const exception = static_cast<HalvikException*>(param);
    const std::string_view message(exception->GetErrorString(), strnlen(exception->GetErrorString(), kErrorTextSize));
    char caught[kCaughtPrefix.size() + kErrorTextSize]; // filled by copies: printf is much slower
    const std::size_t length = message.copy(caught + kCaughtPrefix.copy(caught, kCaughtPrefix.size()), message.size());
    LogErrorLine(exception->GetLocationString(), message);
    LogErrorLine(TextOrEmpty(functionName), {caught, kCaughtPrefix.size() + length});
}

void RecordSignal(StructuredException& exception)
{
    RecordError(exception.GetExceptionCode(), exception.GetErrorMessage());
}

} // namespace

void ExceptionHandler::OnWriteErrorLog_WriteString(const char* source, void* param)
{
    if (param != nullptr)
    {
        LogErrorLine(TextOrEmpty(source), static_cast<const char*>(param));
    }
}

HalvikException* ExceptionHandler::GenericHandleException(const char* functionName, ZelvoReaderErrorCode code,
                                                          const char* message, bool propagate, ErrorLogWriter writer,
                                                          void* writerParam)
{
    return HandleError(functionName, code, message, propagate, writer == nullptr ? LogNothing : writer, writerParam);
}

HalvikException* ExceptionHandler::HandleUnknownException(const char* functionName, bool propagate)
{
    const char* const message = GetCatalogueText(ZR_ERROR_UNKNOWN);
    return HandleError(functionName, ZR_ERROR_UNKNOWN, message, propagate, OnWriteErrorLog_WriteString,
                       const_cast<char*>(message));
}

HalvikException* ExceptionHandler::HandleSTDException(const char* functionName, std::exception& exception, bool propagate)
{
    FormattedText message;
    message.Format("%s - %s", GetCatalogueText(ZR_ERROR_UNKNOWN), exception.what());
    return GenericHandleException(functionName, ZR_ERROR_UNKNOWN, message.GetData(), propagate, OnWriteErrorLog_WriteString,
                                  message.GetData());
}

HalvikException* ExceptionHandler::HandleBadAllocException(const char* functionName, std::bad_alloc& exception,
                                                           bool propagate)
{
    FormattedText message;
    message.Format(GetCatalogueText(ZR_ERROR_MEMORY_ALLOCATION), exception.what());
    return GenericHandleException(functionName, ZR_ERROR_MEMORY_ALLOCATION, message.GetData(), propagate,
                                  OnWriteErrorLog_WriteString, message.GetData());
}

HalvikException* ExceptionHandler::HandleStructuredException(const char* functionName, StructuredException& exception,
                                                             bool propagate)
{
    const ErrnoScope errnoScope;
    const Crash::SignalHandlers handlers = Crash::FindSignalHandlers();
    if (handlers.isTooDeep || Crash::DumpStack::Current() != nullptr) // a fault within a dump
    {
        RecordHandlerFailure();
        return nullptr;
    }
    const QV::SignalSafeScope signalSafe(handlers.isInOne);
    const auto handle = [&]
    {
        RecordSignal(exception);
        if (gFileLogger.IsEnabled())
        {
            Crash::Dump::Current()->Log(ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, "", kBlockSeparator);
            exception.DumpExceptionContext(functionName);
        }
    };
    RunTraced(
        [&]
        {
            if (!Crash::Dump::Run(handle, handlers)) // one dump, so that no other lines come between
            {
                RecordSignal(exception);
            }
            CallErrorCallback();
        },
        Here());
    return propagate ? MakePropagatedException(exception.GetExceptionCode(), exception.GetErrorMessage(), functionName)
                     : nullptr;
}

void ExceptionHandler::HandleHalvikException(const char* functionName, HalvikException* exception)
{
    const ErrnoScope errnoScope;
    RunTraced(
        [=]
        {
            const char* const message = exception->GetErrorString();
            if (exception->GetHandled())
            {
                LogFormatted(ZR_LOG_DEBUG_LOW, ZR_LOG_ALL_CATEGORIES, functionName, "[propagating]: %s", message);
                return;
            }
            ReportError(exception->GetErrorCode(), message, functionName, LogCaughtException, exception);
            exception->SetHandled();
            CallErrorCallback();
        },
        Here());
}
