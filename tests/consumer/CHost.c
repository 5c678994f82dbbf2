/* A C11 host: the plain headers compile, the library links, and the line that was logged is in the file. */
#include <ErrorHandlerDll/ErrorHandlerDll.h>

#include <stdio.h>
#include <string.h>

int main(void)
{
    char line[256] = "";
    FILE* log;
    remove("c_host.log");
    InitialiseLogging(true, ZR_LOG_WARNING, ZR_LOG_ALL_CATEGORIES, "c_host.log");
    LogFormatted(ZR_LOG_WARNING, 1, "CHost - ", "%s %d", "line", 1);
    ShutdownLogging();
    log = fopen("c_host.log", "r");
    return log != NULL && fgets(line, sizeof line, log) != NULL && strstr(line, "] - CHost - line 1\n") != NULL ? 0 : 1;
}
