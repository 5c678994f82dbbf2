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
void End(Arguments...)
{
    pthread_exit(nullptr);
}

void EndWriter()
{
    delete Handler::GenericHandleException(kSource, ZR_ERROR_UNKNOWN, "message", true, End, nullptr);
}

// Called again and again by two threads, until they have ended or, in time, are cancelled. A callback that has been set
// stays for the rows after it.
constexpr struct
{
    const char* m_name;
    void (*m_call)();
    int m_lastError; // of the process, afterwards
} kEndings[] = {{CALL(EndWriter()), ZR_ERROR_IN_EXCEPTION_HANDLER},
                {CALL(Log(); Raise(); pthread_testcancel()), ZR_ERROR_NONE},
                {CALL(SetWarningCallback(End, nullptr); LogWarning(1, kSource, 5)), ZR_ERROR_NONE},
                {CALL(Handler::SetErrorCallback(End, nullptr); HandleRuntimeError()), ZR_ERROR_IN_EXCEPTION_HANDLER}};

void ChangeSettings()
{
    static unsigned int round = 0;
    static const std::string names[] = {GetLogFilename(), GetLogFilename() + std::string(".log")};
    const auto strategy = ++round % 3 == 0 ? LOGGING_STRATEGY_FILE_SIZE : LOGGING_STRATEGY_APPEND;
    LoggingSettings settings = {0, 0, round % 50, strategy, 100000, 0};
    SetLoggingOptions(&settings);
    GetLoggingOptions(&settings);
    InitialiseLogging(true, ZR_LOG_WARNING, 1, names[round % 2].c_str());
    if (round % 5 == 0)
    {
        ShutdownLogging();
    }
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

} // namespace

void EndThreads(int scale)
{
    for (const auto& ending : kEndings)
    {
        Handler::SetLastErrorCode(ZR_ERROR_NONE);
        BeginWriter();
        int taken = 0;
        const auto end = [&]
        {
            auto threads = CallForEver({ending.m_call, ending.m_call});
            usleep(static_cast<unsigned int>(taken % 7) * 100);
            for (std::jthread& thread : threads)
            {
                pthread_cancel(thread.native_handle());
                thread.join();
            }
            taken += Log() ? 1 : 0;
        };
        Verdict verdict = Repeat(40 * scale, end);
        verdict.m_torn = 0; // the blocks of the handlers: what tears our lines, shows in lost and joined ones
        Report(ending.m_name, verdict, taken == 40 * scale && Handler::m_lastErrorCode == ending.m_lastError,
               {{"last error", Handler::m_lastErrorCode}});
    }
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
