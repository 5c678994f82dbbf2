// Threads that end in the middle of the library: by pthread_exit in a callback or in the writer of an error block, which
// holds the log's lock, or cancelled while they raise and handle. The lock is free afterwards, and lines go on.
#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/ExceptionHandler.h"
#include "ErrorHandlerDll/HalvikException.h"
#include "Oracle.h"
#include "Subject.h"

#include <atomic>
#include <cstdio>
#include <pthread.h>
#include <stdexcept>
#include <unistd.h>

namespace
{

std::atomic<bool> gStop{false};

void EndThread(const char*, void*)
{
    pthread_exit(nullptr);
}
void EndThreadOnWarning(std::uint32_t, char*, void*)
{
    pthread_exit(nullptr);
}
void EndThreadOnError(ZelvoReaderErrorCode, char*, void*)
{
    pthread_exit(nullptr);
}
// fflush and friends in a host's callback are cancellation points.
void AllowCancellation(const char*, void*)
{
    pthread_testcancel();
}

void* ExitInWriter(void*)
{
    ExceptionHandler::GenericHandleException("Unwind() - ", ZR_ERROR_UNKNOWN, "message", true, EndThread, nullptr);
    return nullptr;
}
void* ExitInWarning(void*)
{
    SetWarningCallback(EndThreadOnWarning, nullptr);
    LogWarning(1, "Unwind() - ", 5);
    return nullptr;
}
void* ExitInErrorCallback(void*)
{
    ExceptionHandler::SetErrorCallback(EndThreadOnError, nullptr);
    std::runtime_error error("text");
    ExceptionHandler::HandleSTDException("Unwind() - ", error, true);
    return nullptr;
}
void* CancelledWhileHandling(void*)
{
    while (!gStop)
    {
        try
        {
            RaiseError(ZR_ERROR_UNKNOWN, "Unwind() - ");
        }
        catch (HalvikException* exception)
        {
            delete exception;
        }
        ExceptionHandler::GenericHandleException("Unwind() - ", ZR_ERROR_UNKNOWN, "message", false, AllowCancellation,
                                                 nullptr);
    }
    return nullptr;
}

bool Unwind(const char* name, void* (*run)(void*), bool cancels, bool countsAsFailure)
{
    constexpr int kRounds = 200;
    const ScratchFolder folder;
    auto* result = static_cast<int*>(SharedMemory(2 * sizeof(int)));
    const auto body = [&]
    {
        Subject::Open(folder.Path(), 0);
        for (int round = 0; round < kRounds; ++round)
        {
            pthread_t thread;
            pthread_create(&thread, nullptr, run, nullptr);
            if (cancels)
            {
                usleep(static_cast<unsigned int>(round % 5) * 50);
                pthread_cancel(thread);
            }
            pthread_join(thread, nullptr);
            result[0] += LogMessage(0, 1, "", LineText(0, round).c_str()) ? 1 : 0;
        }
        result[1] = ExceptionHandler::m_lastErrorCode == ZR_ERROR_IN_EXCEPTION_HANDLER ? 1 : 0;
        Subject::Close();
    };
    const int status = RunChild(body, 20);
    const Verdict verdict = Judge(folder.Path());
    char figures[120];
    std::snprintf(figures, sizeof figures, "%d threads: status %x, %d of the later lines lost", kRounds,
                  static_cast<unsigned int>(status), kRounds - result[0] + verdict.Lost(0, kRounds));
    return Report(
        name, status == 0 && result[0] == kRounds && verdict.Lost(0, kRounds) == 0 && (!countsAsFailure || result[1] == 1),
        figures);
}

} // namespace

int main()
{
    bool good = Unwind("pthread_exit in the writer of an error block", ExitInWriter, false, true);
    good = Unwind("pthread_exit in the warning callback", ExitInWarning, false, false) && good;
    good = Unwind("pthread_exit in the error callback", ExitInErrorCallback, false, true) && good;
    good = Unwind("cancelled while raising and handling", CancelledWhileHandling, true, false) && good;
    return good ? 0 : 1;
}
