// Ends with a last error, lines that a full disk has kept out of the log, and neither handler nor shutdown: StoppedHost LOG
#include <ErrorHandlerDll/ErrorHandlerDll.h>
#include <ErrorHandlerDll/ExceptionHandler.h>
#include <ErrorHandlerDll/HalvikException.h>

#include <csignal>
#include <cstdlib>
#include <sys/resource.h>

int main(int, char** argv)
{
    InitialiseLogging(true, ZR_LOG_DEBUG_LOW, ZR_LOG_ALL_CATEGORIES, argv[1]);
    try
    {
        RaiseError(ZR_ERROR_CAMERA_OPEN, "StoppedHost - ");
    }
    catch (HalvikException* exception)
    {
        ExceptionHandler::HandleHalvikException("main - ", exception);

        // What is flushed from here on reaches the file only in part.
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {3000, 3000};
        setrlimit(RLIMIT_FSIZE, &limit);
        for (int number = 1; number <= 150; ++number)
        {
            LogFormatted(ZR_LOG_WARNING, 1, "main - ", "entry %d of M\xC3\xBCnchen", number);
        }
        // One of each kind, for the debugger.
        const ZelvoReaderErrorCode codes[] = {ZR_ERROR_NONE, static_cast<ZelvoReaderErrorCode>(0x10007),
                                              static_cast<ZelvoReaderErrorCode>(static_cast<int>(0xC0000005U)),
                                              static_cast<ZelvoReaderErrorCode>(500)};
        static_cast<void>(codes);
        std::abort();
    }
}
