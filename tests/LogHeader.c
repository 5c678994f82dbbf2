/* Log.h in C, for LogHeaderTest.cpp. */
#include "ErrorHandlerDll/Log.h"

int LogInC(int call);

int LogInC(int call)
{
    if (call < 0)
        ZR_LOG(ZR_LOG_ERROR, 1, "not this one");
    else
        ZR_LOG_ONCE(ZR_LOG_ERROR, 1, "once");
    ZR_LOG_EVERY_N(3, ZR_LOG_ERROR, 1, "every third");
    return ZR_LOG(ZR_LOG_ERROR, 1, "%d", call);
}
