// Warnings are logged and handed to the host's callback, never thrown.
#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/ErrorRegistry.h"
#include "ErrorHandlerDll/FormattedText.h"
#include "ErrorHandlerDll/logging/ProcessLog.h"

namespace
{

ZelvoReaderWarningCallback gWarningCallback;
void* gWarningCallbackParam;

} // namespace

void SetWarningCallback(ZelvoReaderWarningCallback callback, void* param)
{
    gWarningCallback = callback;
    gWarningCallbackParam = param;
}

void LogWarning(uint32_t code, const char* source, ...)
{
    // The text is made only when someone will see it.
    if (gWarningCallback == nullptr && !gFileLogger.CanWrite(ZR_LOG_WARNING, ZR_LOG_ALL_CATEGORIES))
    {
        return;
    }
    FormattedText text;
    va_list arguments;
    va_start(arguments, source);
    text.FormatV(FindWarningText(code).data(), arguments);
    va_end(arguments);

    LogMessage(ZR_LOG_WARNING, ZR_LOG_ALL_CATEGORIES, source, text.GetData());
    if (gWarningCallback != nullptr)
    {
        gWarningCallback(code, text.GetData(), gWarningCallbackParam);
    }
}
