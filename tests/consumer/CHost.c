/* A C11 host: the plain headers compile, the library links and takes a line. */
#include <ErrorHandlerDll/ErrorHandlerDll.h>

int main(void)
{
    bool isTaken;
    InitialiseLogging(true, ZR_LOG_WARNING, ZR_LOG_ALL_CATEGORIES, "c_host.log");
    isTaken = LogFormatted(ZR_LOG_WARNING, 1, "CHost - ", "%s %d", "line", 1);
    ShutdownLogging();
    return isTaken ? 0 : 1;
}
