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

void SendAndWait(int signal)
{
    kill(getpid(), signal);
    pause();
}

void EndInOrder(int)
{
    ShutdownLogging(); // pause() has been interrupted, so nobody holds the log: a service does this outside of a handler
    _exit(0);
}

void Keep(const std::string& keeper, const std::string& way)
{
    if (keeper == "flushInterval 0")
    {
        LoggingSettings settings;
        GetLoggingOptions(&settings);
        settings.flushInterval = 0;
        SetLoggingOptions(&settings);
    }
    else if (keeper == "ShutdownLogging")
    {
        std::at_quick_exit(ShutdownLogging);
        signal(SIGTERM, EndInOrder);
    }
    else if (keeper == "CrashHandler.h")
    {
        InstallCrashHandlers();
        InstallTerminateHandler();
    }
    for (int line = 1; line <= 50; ++line)
    {
        ZR_LOG(ZR_LOG_ERROR, 1, "line %d", line);
    }
    if (keeper == "ShutdownLogging" && way == "_exit")
    {
        ShutdownLogging();
    }
}

} // namespace

int main(int argc, char** argv)
{
    InitialiseLogging(true, ZR_LOG_DEBUG_LOW, ZR_LOG_ALL_CATEGORIES, "ends.log");
    const std::string way = argc == 3 ? argv[2] : "";
    Keep(argc == 3 ? argv[1] : "", way);
    way == "exit"                 ? std::exit(0)
    : way == "quick_exit"         ? std::quick_exit(0)
    : way == "_exit"              ? _exit(0)
    : way == "abort"              ? std::abort()
    : way == "SIGTERM"            ? SendAndWait(SIGTERM)
    : way == "SIGKILL"            ? SendAndWait(SIGKILL)
    : way == "fault"              ? __builtin_trap()
    : way == "uncaught exception" ? throw std::runtime_error("nobody catches this")
                                  : static_cast<void>(0);
    return way == "return from main" ? 0 : 2;
}
