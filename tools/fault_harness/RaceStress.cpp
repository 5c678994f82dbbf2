// Logging, settings, raising, handling and looking up together, for the thread sanitizer: faults_races [SECONDS].
//
// Errors are raised on several threads but handled on one: the last error is one for the process, written without a lock.
#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/ExceptionHandler.h"
#include "ErrorHandlerDll/HalvikException.h"
#include "Oracle.h"
#include "Subject.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <thread>
#include <vector>

namespace
{

constexpr int kWriters = 2;

std::atomic<bool> gStop{false};
std::atomic<int> gCalls{0};

void WriteLines(int writer, int* count)
{
    const unsigned char bytes[40] = {};
    while (!gStop)
    {
        LogMessage(0, 1, "", LineText(writer, (*count)++).c_str());
        LogFormatted(0, 1, "", "%s", LineText(writer, (*count)++).c_str());
        LogMessageAndBufferAsHex(3, 2, "", "filtered", bytes, sizeof bytes);
        ++gCalls;
    }
}

void ChangeSettings(const std::string& folder)
{
    for (unsigned int i = 0; !gStop; ++i)
    {
        LoggingSettings settings = {};
        GetLoggingOptions(&settings);
        settings.flushInterval = i % 50;
        settings.strategy = i % 3 == 0 ? LOGGING_STRATEGY_FILE_SIZE : LOGGING_STRATEGY_APPEND;
        settings.maxFileSize = 100000;
        SetLoggingOptions(&settings);
        InitialiseLogging(true, ZR_LOG_WARNING, 1, (folder + (i % 2 == 0 ? "/app.log" : "/other.log")).c_str());
        static_cast<void>(GetLogFilename());
        if (i % 5 == 0)
        {
            ShutdownLogging();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ++gCalls;
    }
}

void Raise()
{
    while (!gStop)
    {
        try
        {
            RaiseError(ZR_ERROR_UNKNOWN, "Stress() - ");
        }
        catch (HalvikException* exception)
        {
            delete exception;
        }
        char text[256];
        int length = sizeof text;
        GetErrorString(ZR_ERROR_MEMORY_ALLOCATION, text, &length);
        LogWarning(1, "filtered ", 5);
        ++gCalls;
    }
}

void Handle()
{
    while (!gStop)
    {
        try
        {
            RaiseError(ZR_ERROR_UNKNOWN, LineText(100, 0).c_str());
        }
        catch (HalvikException* exception)
        {
            ExceptionHandler::HandleHalvikException("Stress() - ", exception);
            ExceptionHandler::HandleHalvikException("Stress() - ", exception);
            delete exception;
        }
        std::runtime_error error("text");
        delete ExceptionHandler::HandleSTDException("Stress() - ", error, true);
        delete ExceptionHandler::HandleUnknownException("Stress() - ", true);
        ++gCalls;
    }
}

void OnError(ZelvoReaderErrorCode, char*, void*)
{
    LogMessage(3, 1, "", "filtered");
}

} // namespace

int main(int count, char** arguments)
{
    const int seconds = count > 1 ? std::atoi(arguments[1]) : 5;
    const ScratchFolder folder;
    Subject::Open(folder.Path(), 0);
    ExceptionHandler::SetErrorCallback(OnError, nullptr);
    int written[kWriters] = {};
    std::vector<std::thread> threads;
    for (int i = 0; i < kWriters; ++i)
    {
        threads.emplace_back(WriteLines, i, &written[i]);
    }
    threads.emplace_back(ChangeSettings, folder.Path());
    threads.emplace_back(Raise);
    threads.emplace_back(Raise);
    threads.emplace_back(Handle);
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    gStop = true;
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    ShutdownLogging();
    const Verdict verdict = Judge(folder.Path());
    int lost = 0;
    for (int i = 0; i < kWriters; ++i)
    {
        lost += verdict.Lost(i, written[i]);
    }
    char figures[160];
    std::snprintf(figures, sizeof figures, "%d s, %d rounds, %d lines: %d lost, %d doubled, %d files end inside a line",
                  seconds, gCalls.load(), written[0] + written[1], lost, verdict.m_doubled, verdict.m_openEnds);
    return Report("logging, settings, raising, handling", lost == 0 && verdict.m_doubled == 0 && verdict.m_openEnds == 0,
                  figures)
               ? 0
               : 1;
}
