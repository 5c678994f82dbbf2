// Logs numbered entries while its log is rotated: RotatingHost LOG ENTRIES [MAX_FILE_SIZE]. With a size it rotates by
// itself; without one it opens its log afresh whenever it is told to by SIGHUP. Half of the entries have further lines.
#include <ErrorHandlerDll/ErrorHandlerDll.h>

#include <csignal>
#include <cstdlib>
#include <unistd.h>

namespace
{

volatile std::sig_atomic_t gReopenLog = 0;

void HandleHangup(int)
{
    gReopenLog = 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3)
    {
        return 2;
    }
    std::signal(SIGHUP, HandleHangup);
    InitialiseLogging(true, ZR_LOG_WARNING, ZR_LOG_ALL_CATEGORIES, argv[1]);
    LoggingSettings settings = {};
    GetLoggingOptions(&settings);
    settings.flushInterval = 5;
    if (argc > 3)
    {
        settings.strategy = LOGGING_STRATEGY_FILE_SIZE;
        settings.maxFileSize = static_cast<unsigned int>(std::atoi(argv[3]));
    }
    SetLoggingOptions(&settings);
    const unsigned char bytes[40] = {};
    const int count = std::atoi(argv[2]);
    for (int number = 1; number <= count; ++number)
    {
        if (gReopenLog != 0)
        {
            gReopenLog = 0;
            ShutdownLogging();
        }
        LogFormatted(ZR_LOG_WARNING, 1, "main - ", "entry %d", number);
        LogMessageAndBufferAsHex(ZR_LOG_ERROR, 1, "main - ", "bytes", bytes, number % 10 == 0 ? 40 : 0);
        usleep(2000);
    }
    ShutdownLogging();
}
