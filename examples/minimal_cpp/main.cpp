// A host in C++: an error is raised, reported in minimal_cpp.log and left as the last error.
#include <ErrorHandlerDll/ErrorHandlerDll.h>
#include <ErrorHandlerDll/ExceptionHandler.h>
#include <ErrorHandlerDll/HalvikException.h>

int main()
{
    InitialiseLogging(true, ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, "minimal_cpp.log");
    try
    {
        RaiseError(ZR_ERROR_FILE_NOT_FOUND, "Layout(88) : Open() - ", "layout.db");
    }
    catch (HalvikException* exception)
    {
        ExceptionHandler::HandleHalvikException("main() - ", exception);
        delete exception;
    }
    return ExceptionHandler::m_lastErrorCode == ZR_ERROR_FILE_NOT_FOUND ? 0 : 1;
}
