// A C++17 host: the headers compile, the library links, and what was set is read back.
#include <ErrorHandlerDll/ErrorHandlerDll.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

int main()
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

    std::ostringstream text;
    text << std::ifstream(name).rdbuf();
    if (name != "cpp_host.1.log" || text.str().find("] - CppHost - a line\n") == std::string::npos)
    {
        std::fprintf(stderr, "CppHost: unexpected log %s: %s\n", name.c_str(), text.str().c_str());
        return 1;
    }
    std::puts("CppHost: passed");
}
