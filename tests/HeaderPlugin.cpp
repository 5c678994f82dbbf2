// A shared object with its own copy of CrashHandler.h.
#include "ErrorHandlerDll/CrashHandler.h"

extern "C" __attribute__((visibility("default"))) void InstallFromPlugin();
extern "C" void InstallFromPlugin()
{
    InstallCrashHandlers();
    InstallTerminateHandler();
}
