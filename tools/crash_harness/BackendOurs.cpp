// The library itself, used as its manual says.
#include "Backend.h"
#include <ErrorHandlerDll/ErrorHandlerDll.h>
#include <ErrorHandlerDll/ExceptionHandler.h>
#include <ErrorHandlerDll/HalvikException.h>
#include <ErrorHandlerDll/LinuxStructuredException.h>

#include <cerrno>
#include <csignal>

namespace
{

void HandleFatalSignal(int signal, siginfo_t* info, void* context)
{
    Host::OnFault();
    errno = Host::kErrnoBefore;
    StructuredException exception(signal, static_cast<ucontext_t*>(context), info);
    Host::OnFirstDump();
    ExceptionHandler::HandleStructuredException("Host::HandleFatalSignal", exception, false);
    Host::OnDumped(context, errno == Host::kErrnoBefore);
}

} // namespace

void Backend::Start(std::string_view strategy)
{
    LoggingSettings settings = {};
    settings.flushInterval = 100;
    settings.maxFileSize = 12000;
    settings.strategy = strategy == "rotate"      ? LOGGING_STRATEGY_FILE_SIZE
                        : strategy == "overwrite" ? LOGGING_STRATEGY_OVERWRITE
                                                  : LOGGING_STRATEGY_APPEND;
    SetLoggingOptions(&settings);
    InitialiseLogging(true, ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, "host.log");
}

bool Backend::Log(int worker, std::uint64_t number)
{
    return LogFormatted(ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, "Host - ", "worker %d line %llu.", worker,
                        static_cast<unsigned long long>(number));
}

bool Backend::LogBytes(const unsigned char* bytes, int length)
{
    return LogMessageAndBufferAsHex(ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, "Host - ", "bytes", bytes, length);
}

void Backend::RaiseAndHandle()
{
    try
    {
        RaiseError(ZR_ERROR_UNKNOWN, "Host::RaiseAndHandle");
    }
    catch (HalvikException* exception)
    {
        delete exception;
    }
}

void Backend::InstallHandlers()
{
    struct sigaction action = {};
    action.sa_sigaction = HandleFatalSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
    for (const int signal : {SIGSEGV, SIGBUS, SIGILL, SIGFPE})
    {
        sigaction(signal, &action, nullptr);
    }
}
