// Every exported operation is run with its 1st, 2nd, 3rd ... allocation failing, until none fails any more. Each time only
// std::bad_alloc may leave it, or what it is there to throw; the state is that from before or that from after; another
// thread finds the log unlocked; the same call works the next time; and no block of memory stays behind.
#include "ErrorHandlerDll/ExceptionHandler.h"
#include "ErrorHandlerDll/HalvikException.h"
#include "ErrorHandlerDll/LinuxStructuredException.h"
#include "harness/faults/Oracle.h"
#include "support/Allocations.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <stdexcept>
#include <unistd.h>
#include <utility>

namespace
{

std::string gLongText(3000, 'x'); // none of these is made while an allocation may fail
std::string gOtherPath;
char gText[64 * 1024];
unsigned char gBytes[300];
HalvikException gError(ZR_ERROR_UNKNOWN, "message", "Walk() - ");
std::runtime_error gLongError(gLongText);
std::bad_alloc gBadAlloc;
ucontext_t gContext;
siginfo_t gInfo;

void OnError(ZelvoReaderErrorCode, char*, void*) {}
void OnWarning(std::uint32_t, char*, void*) {}

void Raise(int withList, ...)
{
    va_list arguments;
    va_start(arguments, withList);
    try
    {
        withList != 0 ? RaiseErrorVar(ZR_ERROR_UNKNOWN, "Walk() - ", arguments) : RaiseError(ZR_ERROR_UNKNOWN, "Walk() - ");
    }
    catch (HalvikException* exception)
    {
        delete exception;
    }
    va_end(arguments);
}

StructuredException& Fault()
{
    static StructuredException fault(SIGSEGV, &gContext, &gInfo);
    return fault;
}

void SetStrategy(ZelvoReaderLoggingStrategy strategy)
{
    LoggingSettings settings = {0, 0, 3, strategy, 5000, 7};
    SetLoggingOptions(&settings);
}

int* Room()
{
    static int length = 0;
    length = sizeof gText;
    return &length;
}

struct Operation
{
    const char* m_orDefined; // may stand in the state, between old and new, because it is said to
    const char* m_name;
    void (*m_call)();
};

constexpr char kNothing[] = "nothing else";
constexpr char kDefaults[] = "interval 3 strategy 0 size 0 reserved 1";
constexpr char kHandlerFailed[] = "An exception was raised within the exception handler.";

const Operation kOperations[] = {
    {kNothing, CALL(InitialiseLogging(true, 5, 0xFFu, gOtherPath.c_str()))},
    {kNothing, CALL(ShutdownLogging())},
    {kNothing, CALL(static_cast<void>(GetLogFilename()))},
    {kNothing, CALL(LogMessage(0, 1, "source", "message"))},
    {kNothing, CALL(LogMessage(0, 1, "longer than the buffer", gText))},
    {kNothing, CALL(LogFormatted(0, 1, "source", "%d %s", 1, "text"))},
    {kNothing, CALL(LogFormatted(0, 1, "", "%s", gLongText.c_str()))},
    {kNothing, CALL(LogFormatted(0, 1, "heap of vsnprintf", "%.5000f %ls", 1.0, L"wide"))},
    {kNothing, CALL(LogMessageAndBufferAsHex(0, 1, "", "hex", gBytes, sizeof gBytes))},
    {kDefaults, CALL(SetStrategy(LOGGING_STRATEGY_APPEND))},
    {kDefaults, CALL(SetStrategy(LOGGING_STRATEGY_OVERWRITE))},
    {kDefaults, CALL(SetStrategy(LOGGING_STRATEGY_FILE_SIZE))},
    {kNothing, CALL(LoggingSettings settings; GetLoggingOptions(&settings))},
    {kNothing, CALL(GetErrorString(ZR_CUSTOM_ERROR_FIRST, gText, Room()))},
    {kNothing, CALL(GetErrorString(static_cast<ZelvoReaderErrorCode>(-0x3FFFFFFB), gText, Room()))},
    {kNothing, CALL(SetErrorMessage(ZR_ERROR_UNKNOWN, "new"))},
    {kNothing, CALL(AddCustomErrorMessage(ZR_CUSTOM_ERROR_FIRST, "new"))},
    {kNothing, CALL(ResetErrorMessages())},
    {kNothing, CALL(GetWarningString(0, gText, Room()))},
    {kNothing, CALL(SetWarningCallback(OnWarning, nullptr))},
    {kNothing, CALL(LogWarning(1, "source", 5))},
    {kNothing, CALL(LogWarning(0, "source", gLongText.c_str()))},
    {kNothing, CALL(Raise(1))},
    {kNothing, CALL(Raise(0))},
    {kNothing, CALL(delete new HalvikException(ZR_ERROR_UNKNOWN, gLongText.c_str(), "Walk() - "))},
    {kNothing, CALL(gError.GetErrorString(); gError.GetLocationString(); gError.GetErrorCode())},
    {kNothing, CALL(gError.SetHandled(); gError.GetHandled())},
    {kNothing, CALL(ExceptionHandler::SetErrorCallback(OnError, nullptr))},
    {kNothing, CALL(ExceptionHandler::SetLastErrorCode(ZR_ERROR_UNKNOWN))},
    {kNothing, CALL(ExceptionHandler::SetLastErrorString("new"))},
    {kNothing, CALL(ExceptionHandler::OnWriteErrorLog_WriteString("source", gLongText.data()))},
    {kHandlerFailed,
     CALL(delete ExceptionHandler::GenericHandleException("Walk() - ", ZR_CUSTOM_ERROR_FIRST, "message", true,
                                                          ExceptionHandler::OnWriteErrorLog_WriteString, gLongText.data()))},
    {kHandlerFailed, CALL(delete ExceptionHandler::HandleUnknownException("Walk() - ", true))},
    {kHandlerFailed, CALL(delete ExceptionHandler::HandleSTDException("Walk() - ", gLongError, true))},
    {kHandlerFailed, CALL(delete ExceptionHandler::HandleBadAllocException("Walk() - ", gBadAlloc, true))},
    {kHandlerFailed, CALL(delete ExceptionHandler::HandleStructuredException("Walk() - ", Fault(), true))},
    {kHandlerFailed, CALL(ExceptionHandler::HandleHalvikException("Walk() - ", &gError))},
    {kNothing, CALL(StructuredException(SIGSEGV, &gContext, &gInfo))},
    {kNothing, CALL(Fault().GetExceptionString(); Fault().GetExceptionCode(); Fault().GetErrorMessage())},
    {kNothing, CALL(StructuredException::GetExceptionName(1))},
    {kNothing, CALL(StructuredException::RegisterHandler(nullptr); StructuredException::UnRegisterHandler(nullptr))},
    {kNothing, CALL(Fault().DumpExceptionContext("Walk() - "))},
    {kNothing, CALL(Fault().GenerateCallStack())},
    {kNothing, CALL(Fault().GenerateModuleAddresses())},
    {kNothing, CALL(Fault().GenerateStackDump(gBytes))},
};

// All that a host can read of the library's state, but for the file name: a numbered one may move on without the call that
// moved it having ended well.
std::string State()
{
    LoggingSettings settings;
    GetLoggingOptions(&settings);
    char texts[2][512] = {};
    int length = sizeof texts[0];
    GetErrorString(ZR_ERROR_UNKNOWN, texts[0], &length);
    length = sizeof texts[1];
    GetErrorString(ZR_CUSTOM_ERROR_FIRST, texts[1], &length);
    char state[2000];
    std::snprintf(state, sizeof state, "level %d mask %x interval %u strategy %d size %u reserved %u last %d %s / %s / %s",
                  settings.logLevel, settings.logMask, settings.flushInterval, settings.strategy, settings.maxFileSize,
                  settings.reserved, ExceptionHandler::m_lastErrorCode, ExceptionHandler::m_lastErrorString, texts[0],
                  texts[1]);
    return state;
}

std::atomic<long> gBlocks{0};

// Numbered files and the trace on, so that lines search, rotate and are many. The line buffer is of another length than any
// line to come, which costs each of them an allocation.
//   returns the state
std::string Prepare(const LogFolder& folder, bool isFileOpen)
{
    ResetErrorMessages();
    SetErrorMessage(ZR_ERROR_UNKNOWN, "old");
    ExceptionHandler::SetLastErrorCode(ZR_ERROR_NONE);
    ExceptionHandler::SetLastErrorString("");
    LoggingSettings settings = {0, 0, 2, LOGGING_STRATEGY_FILE_SIZE, 700, 1};
    SetLoggingOptions(&settings);
    folder.Empty(); // the search allocates for each file that it finds
    InitialiseLogging(true, 5, ZR_LOG_ALL_CATEGORIES, (folder / "app.log").c_str());
    if (isFileOpen)
    {
        LogMessage(0, 1, "", "a line of a length that no other has ...........");
    }
    return State();
}

int gFailures = 0; // allocations that were made to fail
int gFaults = 0;

// Returns what has left the operation.
const char* Call(const Operation& operation)
{
    try
    {
        operation.m_call();
        return "";
    }
    catch (const std::bad_alloc&)
    {
        return "bad_alloc";
    }
    catch (...)
    {
        return "something else";
    }
}

// Returns whether the n-th allocation was reached.
bool FailOne(const Operation& operation, const LogFolder& folder, bool isFileOpen, long n, const std::string& after)
{
    const std::string before = Prepare(folder, isFileOpen);
    Allocations::tFailAfter = n;
    const std::string left = Call(operation);
    const bool isFailed = std::exchange(Allocations::tFailAfter, -1) < 0;
    const std::string state = State();
    bool isLogged = false;
    std::thread([&isLogged] { isLogged = LogMessage(0, 1, "", "next"); }).join();
    const std::string leftAgain = Call(operation);
    const bool isDefined = state == before || state == after || state.find(operation.m_orDefined) != std::string::npos;
    if (left == "something else" || !isDefined || !isLogged || !leftAgain.empty())
    {
        std::fprintf(stderr, "BROKEN: %s, allocation %ld: left by %s, then by %s, state %s%s\n", operation.m_name, n,
                     left.c_str(), leftAgain.c_str(), state.c_str(), isLogged ? "" : ", another thread cannot log");
        ++gFaults;
    }
    gFailures += isFailed ? 1 : 0;
    return isFailed;
}

void FailAll(const LogFolder& folder)
{
    gFailures = 0;
    for (const Operation& operation : kOperations)
    {
        for (const bool isFileOpen : {true, false})
        {
            Prepare(folder, isFileOpen);
            Call(operation);
            const std::string after = State();
            for (long n = 0; FailOne(operation, folder, isFileOpen, n, after);)
            {
                ++n;
            }
        }
    }
    Prepare(folder, true);
}

} // namespace

bool FailMemory(int)
{
    const LogFolder folder;
    gOtherPath = folder / std::string(200, 'n');
    std::memset(gText, 'y', sizeof gText - 1);
    gInfo.si_code = SEGV_MAPERR;
    getcontext(&gContext);
    ExceptionHandler::SetErrorCallback(OnError, nullptr);

    // The dumps of the structured exceptions are not what is looked at here.
    const int output = dup(STDOUT_FILENO);
    dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
    Allocations::gLeave = [](int blocks)
    {
        gBlocks += blocks;
    };
    FailAll(folder); // what is allocated once and for all is there after the first time
    const long before = gBlocks;
    FailAll(folder);
    const long left = gBlocks - before;
    Allocations::gLeave = nullptr;
    std::fflush(stdout);
    dup2(output, STDOUT_FILENO);
    return Report("memory runs out", Verdict(), gFaults == 0 && left <= 0 && gFailures > 0,
                  "%zu operations, %d allocations failed in turn: %d faults, %ld blocks left behind", std::size(kOperations),
                  gFailures, gFaults, left);
}
