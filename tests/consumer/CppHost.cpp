// A C++17 host: the headers compile, the library links, and errors come back over the boundary.
#include <ErrorHandlerDll/Boundary.h>
#include <ErrorHandlerDll/CheckedRaise.h>

#include <cstring>

// The type of the exception is hidden in the library, and the last error is data of the library: a wrong export or a wrong
// binding shows here and nowhere else.
int main()
{
    const auto code = static_cast<ZelvoReaderErrorCode>(ZR_CUSTOM_ERROR_FIRST + 7);
    try
    {
        RaiseError(code, "CppHost - ");
    }
    catch (HalvikException* exception)
    {
        ExceptionHandler::HandleHalvikException("CppHost - ", exception);
        delete exception;
    }
    const bool isRecorded = ExceptionHandler::m_lastErrorCode == code &&
                            std::strcmp(ExceptionHandler::m_lastErrorString, "Unknown error code 65543") == 0;
    return isRecorded ? 0 : 1;
}
