// Threads that end in the middle of the library, by pthread_exit or by cancellation: the lock is free afterwards, and lines
// go on. And all calls at a time, for the thread sanitizer.
#include "ErrorHandlerDll/ExceptionHandler.h"
#include "ErrorHandlerDll/HalvikException.h"
#include "harness/faults/Oracle.h"

#include <pthread.h>
#include <stdexcept>
#include <unistd.h>

namespace
{

using Handler = ExceptionHandler;

constexpr const char* kSource = "Threads::End() - ";

void Raise()
{
    try
    {
        RaiseError(ZR_ERROR_UNKNOWN, kSource);
    }
    catch (HalvikException* exception)
    {
        delete exception;
    }
}

void HandleRuntimeError()
{
    std::runtime_error error("text");
    delete Handler::HandleSTDException(kSource, error, true);
}

// A callback of any kind.
template <class... Arguments>
void Exit(Arguments...)
{
    pthread_exit(nullptr);
}

void EndWriter()
{
    delete Handler::GenericHandleException(kSource, ZR_ERROR_UNKNOWN, "message", true, Exit, nullptr);
}

void ChangeSettings()
{
    static unsigned int round = 0;
    static const std::string names[] = {GetLogFilename(), GetLogFilename() + std::string(".log")};
    const auto strategy = ++round % 3 == 0 ? LOGGING_STRATEGY_FILE_SIZE : LOGGING_STRATEGY_APPEND;
    LoggingSettings settings = {0, 0, round % 50, strategy, 100000, 0};
    SetLoggingOptions(&settings);
    GetLoggingOptions(&settings);
    InitialiseLogging(true, ZR_LOG_WARNING, 1, names[round % 2].c_str());
    ShutdownLogging();
    usleep(1000);
}

void LookUp()
{
    char text[256];
    int length = sizeof text;
    GetErrorString(ZR_ERROR_MEMORY_ALLOCATION, text, &length);
    LogWarning(1, "filtered ", 5);
    LogMessageAndBufferAsHex(3, 2, "", "filtered", reinterpret_cast<unsigned char*>(text), length);
}

// On one thread: the last error is one for the process, written without a lock.
void HandleAll()
{
    HalvikException error(ZR_ERROR_UNKNOWN, "message", kSource);
    Handler::HandleHalvikException(kSource, &error);
    HandleRuntimeError();
    delete Handler::HandleUnknownException(kSource, true);
}

// Two threads make the call again and again, until they have ended or, in time, are cancelled.
void End(const char* name, void (*call)(), int lastError, int rounds)
{
    Handler::SetLastErrorCode(ZR_ERROR_NONE);
    BeginWriter();
    int taken = 0;
    const auto end = [&]
    {
        auto threads = CallForEver({call, call});
        usleep(static_cast<unsigned int>(taken % 7) * 100);
        for (std::jthread& thread : threads)
        {
            pthread_cancel(thread.native_handle());
            thread.join();
        }
        taken += Log() ? 1 : 0;
    };
    Verdict verdict = Repeat(rounds, end);
    verdict.m_torn = 0; // the blocks of the handlers: what tears our lines, shows in lost and joined ones
    Report(name, verdict, taken == rounds && Handler::m_lastErrorCode == lastError);
}

} // namespace

// A callback that has been set stays for the rows after it.
void EndThreads(int scale)
{
    End(CALL(EndWriter()), ZR_ERROR_IN_EXCEPTION_HANDLER, 40 * scale);
    End(CALL(Log(); Raise(); pthread_testcancel()), ZR_ERROR_NONE, 40 * scale);
    End(CALL(SetWarningCallback(Exit, nullptr); LogWarning(1, kSource, 5)), ZR_ERROR_NONE, 40 * scale);
    End(CALL(Handler::SetErrorCallback(Exit, nullptr); HandleRuntimeError()), ZR_ERROR_IN_EXCEPTION_HANDLER, 40 * scale);
}

void Race(int scale)
{
    Handler::SetErrorCallback([](ZelvoReaderErrorCode, char*, void*) { LogMessage(3, 1, "", "filtered"); }, nullptr);
    const auto log = []
    {
        Log();
    };
    Verdict verdict = Repeat(3 * scale, [] { sleep(1); }, {log, log, ChangeSettings, LookUp, Raise, Raise, HandleAll});
    verdict.m_torn = 0;
    Report("logging, settings, raising, handling", verdict);
}
