// Logs lines and ends in one of the ways there are: Ends KEEPER WAY. EndsTest.py counts what is left in ends.log.
#include <ErrorHandlerDll/CrashHandler.h>
#include <ErrorHandlerDll/Log.h>

#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace
{

void EndInOrder(int)
{
    ShutdownLogging(); // raise() has been interrupted, so nobody holds the log: a service does this outside of a handler
    _exit(0);
}

void Keep(const std::string& keeper)
{
    const unsigned int flushInterval = keeper == "flushInterval 0" ? 0 : 100;
    LoggingSettings settings = {ZR_LOG_DEBUG_LOW, ZR_LOG_ALL_CATEGORIES, flushInterval, LOGGING_STRATEGY_APPEND, 0, 0};
    SetLoggingOptions(&settings);
    if (keeper == "ShutdownLogging")
    {
        std::at_quick_exit(ShutdownLogging);
        signal(SIGTERM, EndInOrder);
    }
    else if (keeper == "CrashHandler.h")
    {
        InstallCrashHandlers();
        InstallTerminateHandler();
    }
}

} // namespace

int main(int, char** argv)
{
    const std::string keeper = argv[1];
    const std::string way = argv[2];
    InitialiseLogging(true, ZR_LOG_DEBUG_LOW, ZR_LOG_ALL_CATEGORIES, "ends.log");
    Keep(keeper);
    for (int line = 1; line <= 50; ++line)
    {
        ZR_LOG(ZR_LOG_ERROR, 1, "line %d", line);
    }
    way == "exit"                 ? std::exit(0)
    : way == "quick_exit"         ? std::quick_exit(0)
    : way == "_exit"              ? (keeper == "ShutdownLogging" ? EndInOrder : _exit)(0)
    : way == "abort"              ? std::abort()
    : way == "SIGTERM"            ? static_cast<void>(raise(SIGTERM))
    : way == "SIGKILL"            ? static_cast<void>(raise(SIGKILL))
    : way == "fault"              ? __builtin_trap()
    : way == "uncaught exception" ? throw std::runtime_error("nobody catches this")
                                  : static_cast<void>(0);
    return way == "return from main" ? 0 : 2;
}
