// The last error and the error callback of the process. They have a file of their own because the handlers and the function
// trace both use them.
#include "ErrorHandlerDll/ExceptionHandler.h"
#include "QV/FixedText.h"

// Plain zero and no construction: they are valid before any code of the library has run, and in signal handlers.
ZelvoReaderErrorCallback ExceptionHandler::m_errorCallback;
void* ExceptionHandler::m_errorCallbackParam;
ZelvoReaderErrorCode ExceptionHandler::m_lastErrorCode;
char ExceptionHandler::m_lastErrorString[kErrorTextSize];

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
