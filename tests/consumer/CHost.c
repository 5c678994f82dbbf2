/* A C11 host: the plain headers compile, the library links, and the line that was logged is in the file. */
#include <ErrorHandlerDll/ErrorHandlerDll.h>

#include <stdio.h>
#include <string.h>

int main(void)
{
    char line[256] = "";
    FILE* log;
    const char* const name = "c_host.log";

    remove(name);
    InitialiseLogging(true, ZR_LOG_WARNING, ZR_LOG_ALL_CATEGORIES, name);
    LogFormatted(ZR_LOG_WARNING, 1, "CHost - ", "%s %d", "line", 1);
    LogMessage(ZR_LOG_DEBUG_LOW, 1, "CHost - ", "filtered out");
    ShutdownLogging();

    log = fopen(name, "r");
    if (log == NULL || fgets(line, sizeof line, log) == NULL || strstr(line, "] - CHost - line 1\n") == NULL ||
        fgets(line, sizeof line, log) != NULL)
    {
        fprintf(stderr, "CHost: unexpected log: %s\n", line);
        return 1;
    }
    fclose(log);
    puts("CHost: passed");
    return 0;
}
