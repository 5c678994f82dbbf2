// Logs lines and ends in one of the ways there are: Ends KEEPER WAY. EndsTest.py counts what is left in ends.log.
#include <ErrorHandlerDll/CrashHandler.h>
#include <ErrorHandlerDll/Log.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <unistd.h>

namespace
{

struct Way
{
    const char* name;
    int (*end)();
};

// Signals that are sent are waited for.
int Send(int signal)
{
    kill(getpid(), signal);
    pause();
    return 1;
}

const Way kWays[] = {
    {"return from main",
     []
     {
         return 0;
     }},
    {"exit",
     []() -> int
     {
         std::exit(0);
     }},
    {"quick_exit",
     []() -> int
     {
         std::quick_exit(0);
     }},
    {"_exit",
     []() -> int
     {
         _exit(0);
     }},
    {"abort",
     []() -> int
     {
         std::abort();
     }},
    {"SIGTERM",
     []
     {
         return Send(SIGTERM);
     }},
    {"SIGKILL",
     []
     {
         return Send(SIGKILL);
     }},
    {"fault",
     []() -> int
     {
         __builtin_trap();
     }},
    {"uncaught exception",
     []() -> int
     {
         throw std::runtime_error("nobody catches this");
     }},
};

void EndInOrder(int)
{
    ShutdownLogging(); // pause() has been interrupted, so nobody holds the log: a service does this outside of a handler
    _exit(0);
}

void Keep(const char* keeper)
{
    if (std::strcmp(keeper, "flushInterval 0") == 0)
    {
        LoggingSettings settings;
        GetLoggingOptions(&settings);
        settings.flushInterval = 0;
        SetLoggingOptions(&settings);
    }
    else if (std::strcmp(keeper, "ShutdownLogging") == 0)
    {
        std::at_quick_exit(ShutdownLogging);
        signal(SIGTERM, EndInOrder);
    }
    else if (std::strcmp(keeper, "CrashHandler.h") == 0)
    {
        InstallCrashHandlers();
        InstallTerminateHandler();
    }
}

} // namespace

int main(int argc, char** argv)
{
    InitialiseLogging(true, ZR_LOG_DEBUG_LOW, ZR_LOG_ALL_CATEGORIES, "ends.log");
    if (argc != 3)
    {
        return 2;
    }
    Keep(argv[1]);
    for (int line = 1; line <= 50; ++line)
    {
        ZR_LOG(ZR_LOG_ERROR, 1, "line %d", line);
    }
    for (const Way& way : kWays)
    {
        if (std::strcmp(way.name, argv[2]) == 0)
        {
            if (std::strcmp(argv[1], "ShutdownLogging") == 0 && std::strcmp(argv[2], "_exit") == 0)
            {
                ShutdownLogging();
            }
            return way.end();
        }
    }
    return 2;
}
