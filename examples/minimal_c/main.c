// A host in C: one line in minimal_c.log.
#include <ErrorHandlerDll/ErrorHandlerDll.h>

int main(void)
{
    InitialiseLogging(true, ZR_LOG_DEBUG_LOW, ZR_LOG_ALL_CATEGORIES, "minimal_c.log");
    const bool written = LogFormatted(ZR_LOG_WARNING, 1, "main() - ", "%d of %d pages read", 3, 4);
    ShutdownLogging();
    return written ? 0 : 1;
}
