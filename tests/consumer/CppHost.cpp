// A C++17 host: the headers compile, the library links, and settings and errors come back over the boundary.
#include <ErrorHandlerDll/CheckedRaise.h>
#include <ErrorHandlerDll/ErrorHandlerDll.h>
#include <ErrorHandlerDll/ExceptionHandler.h>
#include <ErrorHandlerDll/HalvikException.h>
#include <ErrorHandlerDll/LinuxStructuredException.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

namespace
{

std::string ReadText(const std::string& name)
{
    std::ostringstream text;
    text << std::ifstream(name).rdbuf();
    return text.str();
}

bool LogsIntoNumberedFile()
{
    std::remove("cpp_host.1.log");
    LoggingSettings settings = {};
    settings.strategy = LOGGING_STRATEGY_FILE_SIZE;
    settings.maxFileSize = 4096;
    InitialiseLogging(true, ZR_LOG_DEBUG_HIGH, ZR_LOG_ALL_CATEGORIES, "cpp_host.log");
    SetLoggingOptions(&settings);
    LogMessage(ZR_LOG_DEBUG_HIGH, 1, "CppHost - ", "a line");
    const std::string name = GetLogFilename();
    ShutdownLogging();
    return name == "cpp_host.1.log" && ReadText(name).find("] - CppHost - a line\n") != std::string::npos;
}

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
    const bool logs = LogsIntoNumberedFile();
    const bool catches = CatchesWhatTheLibraryThrows();
    std::printf("CppHost: log %s, errors %s\n", logs ? "passed" : "FAILED", catches ? "passed" : "FAILED");
    return logs && catches ? 0 : 1;
}
