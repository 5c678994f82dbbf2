// All exported operations: while memory runs out, while the threads that are inside end, and all at a time.
//
// Memory: each operation is run with its 1st, 2nd, 3rd ... allocation failing, until none fails any more. Each time only
// std::bad_alloc may leave it, or what it is there to throw; the state is that from before or that from after; another
// thread finds the log unlocked; the same call works the next time; and no block of memory stays behind.
//
// Threads that end in the middle of the library, by pthread_exit or by cancellation: the lock is free afterwards, and lines
// go on.
#include "ErrorHandlerDll/ExceptionHandler.h"
#include "ErrorHandlerDll/HalvikException.h"
#include "ErrorHandlerDll/LinuxStructuredException.h"
#include "harness/faults/Oracle.h"
#include "support/Allocations.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <malloc.h>
#include <new>
#include <pthread.h>
#include <stdexcept>
#include <unistd.h>
#include <utility>

namespace
{

using Handler = ExceptionHandler;

constexpr const char* kWalk = "Walk() - ";
std::string gText(64 * 1024, 'x'); // longer than a buffer; none of these is made while an allocation may fail
std::string gOtherPath;
unsigned char gBytes[300];
HalvikException gError(ZR_ERROR_UNKNOWN, "message", kWalk);
std::runtime_error gLongError(gText);
std::runtime_error gShortError("text");
std::bad_alloc gBadAlloc;
ucontext_t gContext;
siginfo_t gInfo;
StructuredException* gFault = nullptr;

void Set(unsigned int flushInterval, ZelvoReaderLoggingStrategy strategy, unsigned int maxFileSize, unsigned int reserved)
{
    LoggingSettings settings = {0, 0, flushInterval, strategy, maxFileSize, reserved};
    SetLoggingOptions(&settings);
}

const char* LookUp(unsigned int code)
{
    static char text[512];
    int length = sizeof text;
    GetWarningString(code, text, &length);
    length = sizeof text;
    GetErrorString(static_cast<ZelvoReaderErrorCode>(code), text, &length);
    return text;
}

constexpr char kDefaults[] = "interval 3 strategy 0 size 0 reserved 1";
constexpr char kHandlerFailed[] = "An exception was raised within the exception handler.";

const struct Operation
{
    const char* m_name;
    void (*m_call)();
    const char* m_orDefined = "nothing else"; // may stand in the state, between old and new, because it is said to
} kOperations[] = {
    {CALL(InitialiseLogging(true, 5, 0xFFu, gOtherPath.c_str()))},
    {CALL(ShutdownLogging())},
    {CALL(LogMessage(0, 1, "source", "message"))},
    {CALL(LogMessage(0, 1, "longer than the buffer", gText.c_str()))},
    {CALL(LogFormatted(0, 1, "source", "%d %s", 1, "text"))},
    {CALL(LogFormatted(0, 1, "", "%.3000s", gText.c_str()))},
    {CALL(LogFormatted(0, 1, "heap of vsnprintf", "%.5000f %ls", 1.0, L"wide"))},
    {CALL(LogMessageAndBufferAsHex(0, 1, "", "hex", gBytes, sizeof gBytes))},
    {CALL(Set(3, LOGGING_STRATEGY_APPEND, 5000, 7)), kDefaults},
    {CALL(Set(3, LOGGING_STRATEGY_OVERWRITE, 5000, 7)), kDefaults},
    {CALL(Set(3, LOGGING_STRATEGY_FILE_SIZE, 5000, 7)), kDefaults},
    {CALL(LoggingSettings settings; GetLoggingOptions(&settings); static_cast<void>(GetLogFilename()))},
    {CALL(LookUp(ZR_CUSTOM_ERROR_FIRST); LookUp(0xC0000005))},
    {CALL(SetErrorMessage(ZR_ERROR_UNKNOWN, "new"))},
    {CALL(AddCustomErrorMessage(ZR_CUSTOM_ERROR_FIRST, "new"))},
    {CALL(ResetErrorMessages())},
    {CALL(SetWarningCallback([](std::uint32_t, char*, void*) {}, nullptr))},
    {CALL(LogWarning(1, "source", 5))},
    {CALL(LogWarning(0, "source", gText.c_str()))},
    {CALL(RaiseError(ZR_ERROR_UNKNOWN, kWalk))},
    {CALL(va_list none = {}; RaiseErrorVar(ZR_ERROR_UNKNOWN, kWalk, none))},
    {CALL(delete new HalvikException(ZR_ERROR_UNKNOWN, gText.c_str(), kWalk))},
    {CALL(gError.SetHandled(); gError.GetHandled(); gError.GetErrorString(); gError.GetLocationString();
          gError.GetErrorCode())},
    {CALL(Handler::SetErrorCallback([](ZelvoReaderErrorCode, char*, void*) {}, nullptr))},
    {CALL(Handler::SetLastErrorCode(ZR_ERROR_UNKNOWN); Handler::SetLastErrorString("new"))},
    {CALL(Handler::OnWriteErrorLog_WriteString("source", gText.data()))},
    {CALL(delete Handler::GenericHandleException(kWalk, ZR_CUSTOM_ERROR_FIRST, "message", true,
                                                 Handler::OnWriteErrorLog_WriteString, gText.data())),
     kHandlerFailed},
    {CALL(delete Handler::HandleUnknownException(kWalk, true)), kHandlerFailed},
    {CALL(delete Handler::HandleSTDException(kWalk, gLongError, true)), kHandlerFailed},
    {CALL(delete Handler::HandleBadAllocException(kWalk, gBadAlloc, true)), kHandlerFailed},
    {CALL(delete Handler::HandleStructuredException(kWalk, *gFault, true)), kHandlerFailed},
    {CALL(Handler::HandleHalvikException(kWalk, &gError)), kHandlerFailed},
    {CALL(StructuredException(SIGSEGV, &gContext, &gInfo))},
    {CALL(gFault->GetExceptionString(); StructuredException::GetExceptionName(1); gFault->GetErrorMessage())},
    {CALL(StructuredException::RegisterHandler(nullptr); StructuredException::UnRegisterHandler(nullptr))},
    {CALL(gFault->DumpExceptionContext(kWalk))},
    {CALL(gFault->GenerateCallStack(); gFault->GenerateModuleAddresses(); gFault->GenerateStackDump(gBytes))},
};

// All that a host can read of the library's state, but for the file name: a numbered one may move on without the call that
// moved it having ended well.
std::string State()
{
    LoggingSettings settings;
    GetLoggingOptions(&settings);
    char state[1024];
    std::snprintf(state, sizeof state, "level %d mask %x interval %u strategy %d size %u reserved %u last %d %s ",
                  settings.logLevel, settings.logMask, settings.flushInterval, settings.strategy, settings.maxFileSize,
                  settings.reserved, Handler::m_lastErrorCode, Handler::m_lastErrorString);
    std::string texts = state;
    texts += LookUp(ZR_ERROR_UNKNOWN);
    texts += LookUp(ZR_CUSTOM_ERROR_FIRST);
    return texts;
}

// Numbered files and the trace on, so that lines search, rotate and are many. The line buffer is of another length than any
// line to come, which costs each of them an allocation.
//   returns the state
std::string Prepare(const LogFolder& folder, bool isFileOpen)
{
    ResetErrorMessages();
    SetErrorMessage(ZR_ERROR_UNKNOWN, "old");
    Handler::SetLastErrorCode(ZR_ERROR_NONE);
    Handler::SetLastErrorString("");
    Set(2, LOGGING_STRATEGY_FILE_SIZE, 700, 1);
    folder.Empty(); // the search allocates for each file that it finds
    InitialiseLogging(true, 5, ZR_LOG_ALL_CATEGORIES, (folder / "app.log").c_str());
    if (isFileOpen)
    {
        LogMessage(0, 1, "", "a line of a length that no other has ...........");
    }
    return State();
}

// Returns whether it ended well, and not by std::bad_alloc. Anything else that leaves it ends the program.
bool Call(void (*call)())
{
    try
    {
        call();
    }
    catch (HalvikException* exception)
    {
        delete exception;
    }
    catch (const std::bad_alloc&)
    {
        return false;
    }
    return true;
}

// Returns how many allocations were made to fail.
int FailAll(const Operation& operation, const LogFolder& folder, bool isFileOpen)
{
    Prepare(folder, isFileOpen);
    Call(operation.m_call);
    const std::string after = State();
    for (int n = 0;; ++n)
    {
        const std::string before = Prepare(folder, isFileOpen);
        Allocations::tFailAfter = n;
        Call(operation.m_call);
        if (std::exchange(Allocations::tFailAfter, -1) >= 0)
        {
            return n;
        }
        const std::string state = State();
        bool isLogged = false;
        std::thread([&isLogged] { isLogged = LogMessage(0, 1, "", "next"); }).join();
        const bool isDefined = state == before || state == after || state.find(operation.m_orDefined) != std::string::npos;
        if (!isDefined || !isLogged || !Call(operation.m_call))
        {
            Report(operation.m_name + (": state " + state), Verdict(), false, {{"allocation", n}, {"next line", isLogged}});
        }
    }
}

// A callback of any kind.
template <class... Arguments>
void Exit(Arguments...)
{
    pthread_exit(nullptr);
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

void LookUpAndFilter()
{
    LookUp(ZR_ERROR_MEMORY_ALLOCATION);
    LogWarning(1, "filtered ", 5);
    LogMessageAndBufferAsHex(3, 2, "", "filtered", gBytes, sizeof gBytes);
}

void Raise()
{
    Call([] { RaiseError(ZR_ERROR_UNKNOWN, kWalk); });
}

// On one thread: the last error is one for the process, written without a lock.
void HandleAll()
{
    Handler::HandleHalvikException(kWalk, &gError);
    delete Handler::HandleSTDException(kWalk, gShortError, true);
    delete Handler::HandleUnknownException(kWalk, true);
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

void FailMemory(int)
{
    const LogFolder folder;
    gOtherPath = folder / std::string(200, 'n');
    gInfo.si_code = SEGV_MAPERR;
    getcontext(&gContext);

    // The dumps of the structured exceptions are not what is looked at here.
    dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
    StructuredException fault(SIGSEGV, &gContext, &gInfo);
    gFault = &fault;
    int failures = 0;
    long sizes[3] = {}; // of the heap; 0 under a sanitizer, which looks for lost blocks itself
    for (long& size : sizes)
    {
        failures = 0;
        for (const Operation& operation : kOperations)
        {
            failures += FailAll(operation, folder, true) + FailAll(operation, folder, false);
        }
        Prepare(folder, true);
        size = static_cast<long>(mallinfo2().uordblks);
    }
    // What is allocated once and for all is there after the first time; the allocator's own caches come and go.
    const long left = std::min(sizes[1] - sizes[0], sizes[2] - sizes[1]);
    Report("memory runs out", Verdict(), left <= 0 && failures > 0,
           {{"allocations failed in turn", failures}, {"bytes left behind", left}});
}

// A callback that has been set stays for the rows after it.
void EndThreads(int scale)
{
    End(CALL(delete Handler::GenericHandleException(kWalk, ZR_ERROR_UNKNOWN, "message", true, Exit, nullptr)),
        ZR_ERROR_IN_EXCEPTION_HANDLER, 40 * scale);
    End(CALL(Log(); Raise(); pthread_testcancel()), ZR_ERROR_NONE, 40 * scale);
    End(CALL(SetWarningCallback(Exit, nullptr); LogWarning(1, kWalk, 5)), ZR_ERROR_NONE, 40 * scale);
    End(CALL(Handler::SetErrorCallback(Exit, nullptr); Handler::HandleSTDException(kWalk, gShortError, true)),
        ZR_ERROR_IN_EXCEPTION_HANDLER, 40 * scale);
}

void Race(int scale)
{
    Handler::SetErrorCallback([](ZelvoReaderErrorCode, char*, void*) { LogMessage(3, 1, "", "filtered"); }, nullptr);
    const Calls calls = {[] { Log(); }, [] { Log(); }, ChangeSettings, LookUpAndFilter, Raise, Raise, HandleAll};
    Verdict verdict = Repeat(
        3 * scale, [] { sleep(1); }, calls);
    verdict.m_torn = 0;
    Report("logging, settings, raising, handling", verdict);
}
