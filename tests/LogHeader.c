/* Log.h in C, for LogHeaderTest.cpp. */
#include "ErrorHandlerDll/Log.h"

int LogTwiceInC(int argument);
int LogOnceAndEveryThirdInC(int calls);

int LogTwiceInC(int argument)
{
    if (argument == 0)
        ZR_LOG(ZR_LOG_ERROR, 1, "not this one");
    else
        ZR_LOG(ZR_LOG_ERROR, 1, "plain");
    return ZR_LOG(ZR_LOG_ERROR, 1, "%d", argument);
}

int LogOnceAndEveryThirdInC(int calls)
{
    int i;
    for (i = 0; i < calls; ++i)
    {
        ZR_LOG_ONCE(ZR_LOG_ERROR, 1, "once");
        ZR_LOG_EVERY_N(3, ZR_LOG_ERROR, 1, "call %d", i);
    }
    return i;
}
