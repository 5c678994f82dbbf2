// Logs for the readers of logs to be tried on:
//   RotatingHost LOG                          every form of entry, in numbered files
//   RotatingHost LOG ENTRIES [MAX_FILE_SIZE]  numbered entries while the log is rotated. With a size it rotates by itself;
//                                             without one it opens its log afresh whenever it is told to by SIGHUP.
#include <ErrorHandlerDll/Boundary.h>

#include <csignal>
#include <cstdlib>
#include <initializer_list>
#include <numeric>
#include <unistd.h>

namespace
{

volatile std::sig_atomic_t gReopenLog = 0;

void OnSignal(int signal, siginfo_t* info, void* context)
{
    StructuredException exception(signal, static_cast<ucontext_t*>(context), info);
    ExceptionHandler::HandleStructuredException("RotatingHost::OnSignal - ", exception, false);
}

void LogEntries()
{
    for (const int level : {0, 1, 2, 3, 5, -1, 1234567, -1234567})
    {
        LogFormatted(level, 1, "Camera(120) : Open() - ", "level %d", level);
    }
    LogMessage(ZR_LOG_ERROR, 1, "src/v1.2/Chip reader.cpp(7) : Chip::Send<int>() - ", "path, blank and class in the source");
    LogMessage(ZR_LOG_ERROR, 1, "Reader::Open - ", "source of another form");
    LogMessage(ZR_LOG_ERROR, 1, "", "f(1) : no source, a message that resembles one");
    LogMessage(ZR_LOG_ERROR, 1, "Camera(120) : Open() - ", "quotes \" ' back\\slash, tab\t, 100 %, M\xC3\xBCnchen");
    LogMessage(ZR_LOG_ERROR, 1, "", "");
    LogMessage(ZR_LOG_ERROR, 1, "Camera(121) : Open() - ", "");
    LogMessage(ZR_LOG_WARNING, 1, "Camera(130) : Read() - ",
               "line feeds\n\n  in the message - [ThreadID: 1] - \n03/12/26 ends");
    unsigned char bytes[2048]; // as text more than 8 kB, where some readers cut by default
    std::iota(bytes, bytes + sizeof bytes, static_cast<unsigned char>(16));
    for (const int length : {0, 1, 16, 48, 2048})
    {
        LogMessageAndBufferAsHex(ZR_LOG_DEBUG_HIGH, 1, "Chip(9) : Receive() - ", "reply", bytes, length);
    }
}

void RaiseTwoBoundariesDeep()
{
    AtInnerBoundary("Camera::Scan - ", [] { RaiseError(ZR_ERROR_UNKNOWN_CODE, "Camera(140) : Scan() - "); });
}

void LogEveryForm()
{
    LogEntries();
    AtBoundary("Kit::Scan - ", RaiseTwoBoundariesDeep);
    struct sigaction action = {};
    action.sa_sigaction = OnSignal;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGFPE, &action, nullptr);
    std::raise(SIGFPE);
    LogMessage(ZR_LOG_ERROR, 1, "RotatingHost(1) : main() - ", "last entry");
}

// Half of the entries have further lines.
void LogNumbers(int count)
{
    std::signal(SIGHUP, [](int) { gReopenLog = 1; });
    const unsigned char bytes[40] = {};
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
}

} // namespace

int main(int argc, char** argv)
{
    const int entries = argc > 2 ? std::atoi(argv[2]) : 0;
    const int maxFileSize = argc > 3 ? std::atoi(argv[3]) : entries > 0 ? 0 : 4096;
    const auto strategy = maxFileSize > 0 ? LOGGING_STRATEGY_FILE_SIZE : LOGGING_STRATEGY_APPEND;
    LoggingSettings settings = {0, 0, 5, strategy, static_cast<unsigned int>(maxFileSize), 0};
    InitialiseLogging(argc > 1, 10000000, ZR_LOG_ALL_CATEGORIES, argv[1]);
    SetLoggingOptions(&settings);
    entries > 0 ? LogNumbers(entries) : LogEveryForm();
    ShutdownLogging();
}
