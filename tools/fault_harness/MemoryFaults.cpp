// Every exported operation is run with its 1st, 2nd, 3rd ... allocation failing, until none fails any more. Each time only
// std::bad_alloc may leave it, or what it is there to throw; the state is that from before or that from after; another
// thread finds the log unlocked; the same call works the next time; and no block of memory stays behind.
#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/ExceptionHandler.h"
#include "ErrorHandlerDll/HalvikException.h"
#include "ErrorHandlerDll/LinuxStructuredException.h"
#include "FailingHeap.h"
#include "Oracle.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <new>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace
{

std::string gFolder; // none of these is touched while an allocation may fail
const std::string kLongText(3000, 'x');
const std::string kOtherName(200, 'n');
std::string gOtherPath;
char gText[64 * 1024];
unsigned char gBytes[300];
ZelvoReaderErrorCode gLastCallbackCode;

void OnError(ZelvoReaderErrorCode code, char*, void*)
{
    gLastCallbackCode = code;
}
void OnWarning(std::uint32_t, char*, void*) {}

void Catch(void (*raise)())
{
    try
    {
        raise();
    }
    catch (HalvikException* exception)
    {
        delete exception;
    }
}

void RaiseWithList(int code, ...)
{
    va_list arguments;
    va_start(arguments, code);
    try
    {
        RaiseErrorVar(static_cast<ZelvoReaderErrorCode>(code), "Walk() - ", arguments);
    }
    catch (...)
    {
        va_end(arguments);
        throw;
    }
}

StructuredException& Crash()
{
    static ucontext_t context = {};
    static siginfo_t info = {};
    info.si_code = SEGV_MAPERR;
    getcontext(&context);
    static StructuredException exception(SIGSEGV, &context, &info);
    return exception;
}

// The two handlers that take a standard exception get one that was made before: what() must not allocate.
std::runtime_error& LongError()
{
    static std::runtime_error error(kLongText);
    return error;
}

HalvikException& Halvik()
{
    static HalvikException exception(ZR_ERROR_UNKNOWN, "message", "Walk() - ");
    return exception;
}

struct Operation
{
    const char* m_name;
    void (*m_call)();
};

const Operation kOperations[] = {
    {"InitialiseLogging",
     []
     {
         InitialiseLogging(true, 5, 0xFFu, gOtherPath.c_str());
     }},
    {"ShutdownLogging",
     []
     {
         ShutdownLogging();
     }},
    {"GetLogFilename",
     []
     {
         static_cast<void>(GetLogFilename());
     }},
    {"LogMessage",
     []
     {
         LogMessage(0, 1, "source", "message");
     }},
    {"LogMessage, longer than the buffer",
     []
     {
         LogMessage(0, 1, "", gText);
     }},
    {"LogFormatted",
     []
     {
         LogFormatted(0, 1, "source", "%d %s", 1, "text");
     }},
    {"LogFormatted, long",
     []
     {
         LogFormatted(0, 1, "", "%s", kLongText.c_str());
     }},
    {"LogFormatted, heap of vsnprintf",
     []
     {
         LogFormatted(0, 1, "", "%.5000f %ls", 1.0, L"wide");
     }},
    {"LogMessageAndBufferAsHex",
     []
     {
         LogMessageAndBufferAsHex(0, 1, "", "hex", gBytes, sizeof gBytes);
     }},
    {"SetLoggingOptions, appended",
     []
     {
         LoggingSettings settings = {0, 0, 3, LOGGING_STRATEGY_APPEND, 0, 7};
         SetLoggingOptions(&settings);
     }},
    {"SetLoggingOptions, emptied",
     []
     {
         LoggingSettings settings = {0, 0, 3, LOGGING_STRATEGY_OVERWRITE, 0, 7};
         SetLoggingOptions(&settings);
     }},
    {"SetLoggingOptions, by size",
     []
     {
         LoggingSettings settings = {0, 0, 3, LOGGING_STRATEGY_FILE_SIZE, 5000, 7};
         SetLoggingOptions(&settings);
     }},
    {"GetLoggingOptions",
     []
     {
         LoggingSettings settings;
         GetLoggingOptions(&settings);
     }},
    {"GetErrorString",
     []
     {
         int length = sizeof gText;
         GetErrorString(ZR_CUSTOM_ERROR_FIRST, gText, &length);
         GetErrorString(static_cast<ZelvoReaderErrorCode>(-0x3FFFFFFB), gText, &length);
     }},
    {"SetErrorMessage",
     []
     {
         SetErrorMessage(ZR_ERROR_UNKNOWN, "new");
     }},
    {"AddCustomErrorMessage",
     []
     {
         AddCustomErrorMessage(ZR_CUSTOM_ERROR_FIRST, "new");
     }},
    {"ResetErrorMessages",
     []
     {
         ResetErrorMessages();
     }},
    {"GetWarningString",
     []
     {
         int length = sizeof gText;
         GetWarningString(0, gText, &length);
     }},
    {"SetWarningCallback",
     []
     {
         SetWarningCallback(OnWarning, nullptr);
     }},
    {"LogWarning",
     []
     {
         LogWarning(1, "source", 5);
     }},
    {"LogWarning, long",
     []
     {
         LogWarning(0, "source", kLongText.c_str());
     }},
    {"RaiseError",
     []
     {
         Catch([] { RaiseError(ZR_ERROR_UNKNOWN, "Walk() - "); });
     }},
    {"RaiseErrorVar",
     []
     {
         Catch([] { RaiseWithList(ZR_ERROR_UNKNOWN); });
     }},
    {"HalvikException",
     []
     {
         delete new HalvikException(ZR_ERROR_UNKNOWN, kLongText.c_str(), "Walk() - ");
         Halvik().GetErrorString();
         Halvik().GetLocationString();
         Halvik().GetErrorCode();
         Halvik().SetHandled();
         Halvik().GetHandled();
     }},
    {"SetErrorCallback",
     []
     {
         ExceptionHandler::SetErrorCallback(OnError, nullptr);
     }},
    {"SetLastErrorCode, SetLastErrorString",
     []
     {
         ExceptionHandler::SetLastErrorCode(ZR_ERROR_UNKNOWN);
         ExceptionHandler::SetLastErrorString("new");
     }},
    {"OnWriteErrorLog_WriteString",
     []
     {
         ExceptionHandler::OnWriteErrorLog_WriteString("source", const_cast<char*>(kLongText.c_str()));
     }},
    {"GenericHandleException",
     []
     {
         delete ExceptionHandler::GenericHandleException("Walk() - ", ZR_CUSTOM_ERROR_FIRST, "message", true,
                                                         ExceptionHandler::OnWriteErrorLog_WriteString,
                                                         const_cast<char*>(kLongText.c_str()));
     }},
    {"HandleUnknownException",
     []
     {
         delete ExceptionHandler::HandleUnknownException("Walk() - ", true);
     }},
    {"HandleSTDException",
     []
     {
         delete ExceptionHandler::HandleSTDException("Walk() - ", LongError(), true);
     }},
    {"HandleBadAllocException",
     []
     {
         std::bad_alloc exception;
         delete ExceptionHandler::HandleBadAllocException("Walk() - ", exception, true);
     }},
    {"HandleStructuredException",
     []
     {
         delete ExceptionHandler::HandleStructuredException("Walk() - ", Crash(), true);
     }},
    {"HandleHalvikException",
     []
     {
         ExceptionHandler::HandleHalvikException("Walk() - ", &Halvik());
     }},
    {"StructuredException",
     []
     {
         ucontext_t context = {};
         siginfo_t info = {};
         StructuredException exception(SIGSEGV, &context, &info);
     }},
    {"StructuredException, accessors",
     []
     {
         Crash().GetExceptionString();
         Crash().GetExceptionCode();
         Crash().GetErrorMessage();
         StructuredException::GetExceptionName(1);
         StructuredException::RegisterHandler(nullptr);
         StructuredException::UnRegisterHandler(nullptr);
     }},
    {"DumpExceptionContext",
     []
     {
         Crash().DumpExceptionContext("Walk() - ");
     }},
    {"GenerateCallStack",
     []
     {
         Crash().GenerateCallStack();
     }},
    {"GenerateModuleAddresses",
     []
     {
         Crash().GenerateModuleAddresses();
     }},
    {"GenerateStackDump",
     []
     {
         Crash().GenerateStackDump(gBytes);
     }},
};

// All that a host can read of the library's state.
std::string State()
{
    LoggingSettings settings;
    GetLoggingOptions(&settings);
    char texts[2][512] = {};
    int length = sizeof texts[0];
    GetErrorString(ZR_ERROR_UNKNOWN, texts[0], &length);
    length = sizeof texts[1];
    GetErrorString(ZR_CUSTOM_ERROR_FIRST, texts[1], &length);
    char numbers[160];
    std::snprintf(numbers, sizeof numbers, "level %d mask %x interval %u strategy %d size %u reserved %u last %d ",
                  settings.logLevel, settings.logMask, settings.flushInterval, settings.strategy, settings.maxFileSize,
                  settings.reserved, ExceptionHandler::m_lastErrorCode);
    return numbers + std::string(ExceptionHandler::m_lastErrorString) + " / " + texts[0] + " / " + texts[1] + " / " +
           GetLogFilename();
}

// Numbered files and the trace on, so that lines search, rotate and are many. The line buffer is of another length than any
// line to come, which costs each of them an allocation.
void Prepare(bool fileIsOpen)
{
    ResetErrorMessages();
    SetErrorMessage(ZR_ERROR_UNKNOWN, "old");
    ExceptionHandler::SetLastErrorCode(ZR_ERROR_NONE);
    ExceptionHandler::SetLastErrorString("");
    LoggingSettings settings = {0, 0, 2, LOGGING_STRATEGY_FILE_SIZE, 700, 1};
    SetLoggingOptions(&settings);
    // An empty folder: the search allocates for each file that it finds.
    for (const auto& file : std::filesystem::directory_iterator(gFolder))
    {
        std::filesystem::remove(file.path());
    }
    InitialiseLogging(true, 5, ZR_LOG_ALL_CATEGORIES, (gFolder + "/app.log").c_str());
    if (fileIsOpen)
    {
        LogMessage(0, 1, "", "a line of a length that no other has ...........");
    }
}

// What may stand between old and new, because it is said to.
bool IsDefined(const Operation& operation, const std::string& state)
{
    const bool handles =
        std::strncmp(operation.m_name, "Handle", 6) == 0 || std::strncmp(operation.m_name, "Generic", 7) == 0;
    if (handles && state.find("An exception was raised within the exception handler.") != std::string::npos)
    {
        return true;
    }
    return std::strncmp(operation.m_name, "SetLoggingOptions", 17) == 0 &&
           state.find("interval 3 strategy 0 size 0 reserved 1") != std::string::npos;
}

// A numbered name may move on without the call that moved it having ended well.
std::string WithoutFileName(const std::string& state)
{
    return state.substr(0, state.rfind(" / "));
}

bool AnotherThreadCanLog()
{
    bool logged = false;
    std::thread([&logged] { logged = LogMessage(0, 1, "", "next"); }).join();
    return logged;
}

int gFailures = 0; // allocations that were made to fail
int gFaults = 0;

void Complain(const Operation& operation, long n, const char* what, const std::string& detail)
{
    std::fprintf(stderr, "BROKEN: %s, allocation %ld: %s %s\n", operation.m_name, n, what, detail.c_str());
    ++gFaults;
}

// Returns whether the n-th allocation was reached.
bool Walk(const Operation& operation, bool fileIsOpen, long n, const std::string& after)
{
    Prepare(fileIsOpen);
    const std::string before = State();
    const char* wrong = nullptr;
    FailingHeap::FailAfter(n);
    try
    {
        operation.m_call();
    }
    catch (const std::bad_alloc&)
    {
    }
    catch (...)
    {
        wrong = "something else than bad_alloc leaves";
    }
    const bool failed = FailingHeap::Stop();
    gFailures += failed ? 1 : 0;
    if (wrong != nullptr)
    {
        Complain(operation, n, wrong, "");
    }
    const std::string state = State();
    if (WithoutFileName(state) != WithoutFileName(before) && WithoutFileName(state) != WithoutFileName(after) &&
        !IsDefined(operation, state))
    {
        Complain(operation, n, "between old and new:", state);
    }
    if (!AnotherThreadCanLog())
    {
        Complain(operation, n, "another thread cannot log", "");
    }
    try
    {
        operation.m_call();
    }
    catch (...)
    {
        Complain(operation, n, "the same call fails again", "");
    }
    return failed;
}

void WalkAll()
{
    for (const Operation& operation : kOperations)
    {
        for (const bool fileIsOpen : {true, false})
        {
            Prepare(fileIsOpen);
            operation.m_call();
            const std::string after = State();
            for (long n = 0; Walk(operation, fileIsOpen, n, after);)
            {
                ++n;
            }
        }
    }
}

} // namespace

int main()
{
    const ScratchFolder folder;
    gFolder = folder.Path();
    gOtherPath = gFolder + "/" + kOtherName;
    std::memset(gText, 'y', sizeof gText - 1);
    alarm(120); // a lock that was not left

    // The dumps of the structured exceptions are not what is looked at here.
    const int output = dup(STDOUT_FILENO);
    const int nothing = open("/dev/null", O_WRONLY);
    dup2(nothing, STDOUT_FILENO);
    ExceptionHandler::SetErrorCallback(OnError, nullptr);

    WalkAll(); // what is allocated once and for all is there after the first time
    const long outstanding = FailingHeap::Outstanding();
    gFailures = 0;
    WalkAll();
    Prepare(true);
    const long leaked = FailingHeap::Outstanding() - outstanding;

    std::fflush(stdout);
    dup2(output, STDOUT_FILENO);
    std::printf("%zu operations, %d allocations failed in turn: %d faults, %ld blocks left behind\n", std::size(kOperations),
                gFailures, gFaults, leaked);
    return gFaults == 0 && leaked <= 0 && gFailures > 0 ? 0 : 1;
}
