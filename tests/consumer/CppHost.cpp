// A C++17 host: the headers compile, the library links, and errors come back over the boundary.
#include <ErrorHandlerDll/CheckedRaise.h>
#include <ErrorHandlerDll/ErrorHandlerDll.h>
#include <ErrorHandlerDll/ExceptionHandler.h>
#include <ErrorHandlerDll/HalvikException.h>
#include <ErrorHandlerDll/LinuxStructuredException.h>

#include <cstdio>
#include <cstring>

namespace
{

// The type of the exception is hidden in the library, and the last error is data of the library: a wrong export or a wrong
// binding shows here and nowhere else.
bool CatchesWhatTheLibraryThrows()
{
    const auto code = static_cast<ZelvoReaderErrorCode>(ZR_CUSTOM_ERROR_FIRST + 7);
    try
    {
        RaiseError(code, "CppHost - ");
    }
    catch (HalvikException* exception)
    {
        ExceptionHandler::HandleHalvikException("CppHost - ", exception);
        const bool handled = exception->GetHandled() && exception->GetErrorCode() == code;
        delete exception;
        return handled && ExceptionHandler::m_lastErrorCode == code &&
               std::strcmp(ExceptionHandler::m_lastErrorString, "Unknown error code 65543") == 0;
    }
    return false;
}

} // namespace

int main()
{
    const bool catches = CatchesWhatTheLibraryThrows();
    std::printf("CppHost: %s\n", catches ? "passed" : "FAILED");
    return catches ? 0 : 1;
}
