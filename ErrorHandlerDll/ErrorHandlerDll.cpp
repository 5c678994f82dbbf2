// The exported logging functions, and the objects of the library that need construction.
#include "ErrorHandlerDll/ErrorHandlerDll.h"

#include "ErrorHandlerDll/ErrorRegistry.h"
#include "ErrorHandlerDll/FormattedText.h"
#include "ErrorHandlerDll/crash/Dump.h"
#include "ErrorHandlerDll/logging/LogEntry.h"
#include "ErrorHandlerDll/logging/ProcessLog.h"
#include "QV/ErrnoScope.h"
#include "QV/FixedText.h"

#include <new>
#include <pthread.h>

// Every object of the library with a dynamic initialiser stands here: within one unit the language constructs them in the
// order of definition when the library is loaded, and destroys them in reverse. Do not move any of them to another file.
constinit LoggerStorage gLoggerStorage;

namespace
{

// A host's object that is constructed before this library's may configure the log, too.
FileLogger& GetLogger()
{
    static constinit bool isConstructed = false; // the loader runs constructors one after the other
    if (!isConstructed)
    {
        isConstructed = true;
        new (&gFileLogger) FileLogger;
    }
    return gFileLogger;
}

const struct LibraryScope
{
    LibraryScope()
    {
        GetLogger();
        QV::SignalSafeScope::SetCheck([]() noexcept { return Crash::FindSignalHandlers().isInOne; });
    }
    ~LibraryScope()
    {
        gFileLogger.Retire(); // first: the log is flushed and closed before anything else is gone
        RetireErrorTexts();
    }
} gLibraryScope;

const int gForkHandlers = pthread_atfork(
    []
    {
        const ErrnoScope errnoScope;
        LogFork::Before(gFileLogger);
    },
    [] { LogFork::AfterInParent(gFileLogger); },
    []
    {
        LogFork::AfterInChild(gFileLogger);
        Crash::DumpStack::AfterForkInChild();
    });

} // namespace

// Apart from LogMessage, whose filtered calls then need no stack frame. It takes the same parameters, so that LogMessage
// passes them on where they are; were it local to this file, the compiler would drop the mask, which it does not use.
[[gnu::noinline]] bool WriteTexts(int level, unsigned int, const char* source, const char* message)
{
    return gFileLogger.Write(LogEntry(level, TextOrEmpty(source), TextOrEmpty(message)));
}

void InitialiseLogging(bool enable, int level, unsigned int mask, const char* fileName)
{
    const ErrnoScope errnoScope;
    if (QV::SignalSafeScope::IsActive())
    {
        return; // the name would take the heap, which the interrupted code may be in
    }
    GetLogger().Initialise(enable, level, mask, fileName);
}

const char* GetLogFilename(void)
{
    const char* const name = GetLogger().GetLogFileName();
    return name == nullptr ? "" : name;
}

void ShutdownLogging(void)
{
    const ErrnoScope errnoScope;
    GetLogger().Shutdown();
}

// Aligned to a line of the instruction cache: one line then holds all of a filtered call.
[[gnu::aligned(64)]] bool LogMessage(int level, unsigned int mask, const char* source, const char* message)
{
    return !gFileLogger.CanWrite(level, mask) || WriteTexts(level, mask, source, message);
}

bool LogFormatted(int level, unsigned int mask, const char* source, const char* format, ...)
{
    if (!gFileLogger.CanWrite(level, mask))
    {
        return true;
    }
    const ErrnoScope errnoScope;
    FormattedText message;
    va_list arguments;
    va_start(arguments, format);
    message.FormatV(format == nullptr ? "" : format, arguments);
    va_end(arguments);
    return gFileLogger.Write(LogEntry(level, TextOrEmpty(source), message.GetText()));
}

bool LogMessageAndBufferAsHex(int level, unsigned int mask, const char* source, const char* message,
                              const unsigned char* buffer, int length)
{
    const HexDump dump(buffer, length);
    return !gFileLogger.CanWrite(level, mask) ||
           gFileLogger.Write(LogEntry(level, TextOrEmpty(source), TextOrEmpty(message), &dump));
}

void SetLoggingOptions(LoggingSettings* settings)
{
    const ErrnoScope errnoScope;
    if (settings != nullptr)
    {
        GetLogger().SetOptions(settings);
    }
}

void GetLoggingOptions(LoggingSettings* settings)
{
    if (settings != nullptr)
    {
        GetLogger().GetOptions(settings);
    }
}
