// The last error, and the handlers that hosts call at their API boundary.
#include "ErrorHandlerDll/ExceptionHandler.h"

#include "ErrorHandlerDll/ErrnoScope.h"
#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/ErrorRegistry.h"
#include "ErrorHandlerDll/FormattedText.h"
#include "ErrorHandlerDll/FunctionTrace.h"
#include "ErrorHandlerDll/HalvikException.h"
#include "ErrorHandlerDll/LinuxStructuredException.h"
#include "ErrorHandlerDll/crash/Dump.h"

#include <functional>
#include <string_view>

// Plain zero and no construction: they are valid before any code of the library has run, and in signal handlers.
ZelvoReaderErrorCallback ExceptionHandler::m_errorCallback;
void* ExceptionHandler::m_errorCallbackParam;
ZelvoReaderErrorCode ExceptionHandler::m_lastErrorCode;
char ExceptionHandler::m_lastErrorString[kErrorTextSize];

namespace
{

constexpr const char* kBlockSeparator = "----------------------";
constexpr std::string_view kCaughtPrefix = "[caught]: ";

void RecordError(ZelvoReaderErrorCode code, const char* message)
{
    ExceptionHandler::SetLastErrorCode(code);
    ExceptionHandler::SetLastErrorString(message);
}

void LogErrorLine(const char* source, const char* text)
{
    LogMessage(ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, source, text);
}

// Writes the separator and what `writeLines` logs, as one block that no other thread's lines can split.
template <typename WriteLines>
void WriteErrorBlock(const WriteLines& writeLines)
{
    if (gFileLogger.IsEnabled())
    {
        const LogSectionScope section(gFileLogger);
        LogErrorLine("", kBlockSeparator);
        writeLines();
        gFileLogger.FlushLogFile();
    }
}

// The host gets the last error as it stands now, and the buffer itself: it may be changed by the callback.
void CallErrorCallback()
{
    if (ExceptionHandler::m_errorCallback != nullptr)
    {
        ExceptionHandler::m_errorCallback(ExceptionHandler::m_lastErrorCode, ExceptionHandler::m_lastErrorString,
                                          ExceptionHandler::m_errorCallbackParam);
    }
}

HalvikException* MakePropagatedException(ZelvoReaderErrorCode code, const char* message, const char* functionName)
{
    HalvikException* exception = new HalvikException(code, message, functionName);
    exception->SetHandled();
    return exception;
}

// Apart from their caller, whose stack may be a signal's small one. The text is copied at once: its buffer is shared by all
// objects.
[[gnu::noinline]] void RecordSignal(StructuredException& exception)
{
    ErrorText message;
    CopyFixedText(message, sizeof message, exception.GetErrorMessage());
    RecordError(exception.GetExceptionCode(), message);
}

[[gnu::noinline]] HalvikException* PropagateSignal(StructuredException& exception, const char* functionName)
{
    ErrorText message;
    CopyFixedText(message, sizeof message, exception.GetErrorMessage());
    return MakePropagatedException(exception.GetExceptionCode(), message, functionName);
}

// Whether recording an error overwrites the text.
bool LiesInLastError(const char* text)
{
    const std::less<const char*> before;
    const char* const lastError = ExceptionHandler::m_lastErrorString;
    return !before(text, lastError) && before(text, lastError + kErrorTextSize);
}

} // namespace

void ExceptionHandler::SetErrorCallback(ZelvoReaderErrorCallback callback, void* param)
{
    m_errorCallback = callback;
    m_errorCallbackParam = param;
}

void ExceptionHandler::SetLastErrorCode(ZelvoReaderErrorCode code)
{
    m_lastErrorCode = code;
}

void ExceptionHandler::SetLastErrorString(const char* text)
{
    CopyFixedText(m_lastErrorString, sizeof m_lastErrorString, text);
}

void ExceptionHandler::OnWriteErrorLog_WriteString(const char* source, void* param)
{
    if (param != nullptr)
    {
        LogErrorLine(source, static_cast<const char*>(param));
    }
}

HalvikException* ExceptionHandler::GenericHandleException(const char* functionName, ZelvoReaderErrorCode code,
                                                          const char* message, bool propagate,
                                                          void (*writer)(const char*, void*), void* writerParam)
{
    const ErrnoScope errnoScope;
    ErrorText messageCopy;
    if (LiesInLastError(message))
    {
        CopyFixedText(messageCopy, sizeof messageCopy, message);
        message = messageCopy;
    }
    RunTraced(
        Here(),
        [&]
        {
            RecordError(code, message);
            WriteErrorBlock(
                [=]
                {
                    if (writer != nullptr)
                    {
                        writer(functionName, writerParam);
                    }
                });
            CallErrorCallback();
        },
        Here());
    return propagate ? MakePropagatedException(code, message, functionName) : nullptr;
}

HalvikException* ExceptionHandler::HandleUnknownException(const char* functionName, bool propagate)
{
    const ErrnoScope errnoScope;
    const char* const message = GetCatalogueText(ZR_ERROR_UNKNOWN);
    RunTraced(
        Here(),
        [&]
        {
            RecordError(ZR_ERROR_UNKNOWN, message);
            WriteErrorBlock([=] { LogErrorLine(functionName, message); });
            CallErrorCallback();
        },
        Here());
    return propagate ? MakePropagatedException(ZR_ERROR_UNKNOWN, message, functionName) : nullptr;
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
    const bool isInDump = Crash::DumpStack::Current() != nullptr; // a fault in a dump that no part of it has caught
    const Crash::SignalHandlers handlers = Crash::FindSignalHandlers();
    if (isInDump || handlers.isTooDeep)
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
        Here(),
        [&]
        {
            if (!Crash::Dump::Run(handle, handlers)) // one dump, so that no other lines come between
            {
                RecordSignal(exception);
            }
            CallErrorCallback();
        },
        Here());
    return propagate ? PropagateSignal(exception, functionName) : nullptr;
}

void ExceptionHandler::HandleHalvikException(const char* functionName, HalvikException* exception)
{
    const ErrnoScope errnoScope;
    RunTraced(
        Here(),
        [&]
        {
            if (exception->GetHandled())
            {
                LogFormatted(ZR_LOG_DEBUG_LOW, ZR_LOG_ALL_CATEGORIES, functionName, "[propagating]: %s",
                             exception->GetErrorString());
            }
            else
            {
                RecordError(exception->GetErrorCode(), exception->GetErrorString());
                WriteErrorBlock(
                    [=]
                    {
                        char caughtText[kCaughtPrefix.size() + kErrorTextSize];
                        kCaughtPrefix.copy(caughtText, kCaughtPrefix.size()); // printf would be a quarter of a handling
                        CopyFixedText(caughtText + kCaughtPrefix.size(), kErrorTextSize, exception->GetErrorString());
                        LogErrorLine(exception->GetLocationString(), exception->GetErrorString());
                        LogErrorLine(functionName, caughtText);
                    });
                exception->SetHandled();
                CallErrorCallback();
            }
        },
        Here());
}
