// The exported logging functions, and the objects of the library that need construction.
#include "ErrorHandlerDll/ErrorHandlerDll.h"

#include "ErrorHandlerDll/ErrnoKeeper.h"
#include "ErrorHandlerDll/FixedText.h"
#include "ErrorHandlerDll/HexDump.h"
#include "ErrorHandlerDll/MessageMap.h"
#include "ErrorHandlerDll/crash/Dump.h"
#include "ErrorHandlerDll/logging/ProcessLog.h"
#include "QV/Str.h"

#include <algorithm>
#include <new>
#include <pthread.h>

// Every object of the library with a dynamic initialiser stands here, in this order: within one unit the language constructs
// them in the order of definition when the library is loaded, and destroys them in reverse. The logger's life is the last
// with a destructor and so ends first: the log is flushed and closed before anything else is gone. Do not move any of them
// to another file.
MessageMap gCustomErrorStrings;
MessageMap gOverriddenErrorStrings;
constinit LoggerStorage gLoggerStorage;

namespace
{

// A host's object that is constructed before this library's may configure the log, too.
void ConstructLogger()
{
    static constinit bool isConstructed = false; // the loader runs constructors one after the other
    if (!isConstructed)
    {
        isConstructed = true;
        new (&gFileLogger) FileLogger;
    }
}

const struct LoggerLife
{
    LoggerLife()
    {
        ConstructLogger();
        QV::EmergencyScope::SetCheck([]() noexcept { return Crash::FindSignalRoad().isOnIt; });
    }
    ~LoggerLife() { gFileLogger.Retire(); }
} gLoggerLife;

const int gForkHandlers = pthread_atfork(
    []
    {
        const ErrnoKeeper keeper;
        gFileLogger.BeforeFork();
    },
    [] { gFileLogger.AfterForkInParent(); },
    []
    {
        gFileLogger.AfterForkInChild();
        Crash::DumpStack::AfterForkInChild();
    });

// Most messages fit: then they are formatted once, without the heap.
constexpr int kMessageBufferSize = 1024;

// Dumped with a message of up to two thousand characters, they fit into the memory that there is in an emergency.
constexpr int kMostBytesInEmergency = 512;

// Apart from LogMessage, whose filtered calls then need no stack frame: that is 14 instructions less.
[[gnu::noinline]] bool WriteTexts(int level, unsigned int mask, const char* source, const char* message)
{
    return gFileLogger.Write(level, mask, TextOrEmpty(source), TextOrEmpty(message));
}

[[gnu::format(printf, 4, 0)]] bool WriteFormatted(int level, unsigned int mask, std::string_view source, const char* format,
                                                  va_list& arguments)
{
    char buffer[kMessageBufferSize];
    const int length = QV::Str::FormatArgs(buffer, kMessageBufferSize, format, arguments);
    if (length < 0)
    {
        return gFileLogger.Write(level, mask, source, std::string_view());
    }
    if (length < kMessageBufferSize || QV::EmergencyScope::IsActive())
    {
        const std::size_t kept =
            length < kMessageBufferSize ? static_cast<std::size_t>(length) : CutUtf8(buffer, kMessageBufferSize - 1);
        return gFileLogger.Write(level, mask, source, std::string_view(buffer, kept));
    }
    const QV::BaseString<char> message = QV::BaseString<char>::FormatV(format, arguments);
    return gFileLogger.Write(level, mask, source, std::string_view(message));
}

} // namespace

void InitialiseLogging(bool enable, int level, unsigned int mask, const char* fileName)
{
    const ErrnoKeeper keeper;
    ConstructLogger();
    gFileLogger.Initialise(enable, level, mask, fileName);
}

const char* GetLogFilename(void)
{
    ConstructLogger();
    const LoggerSection section(gFileLogger);
    return gFileLogger.IsRetired() ? "" : gFileLogger.GetLogFileName().GetData();
}

void ShutdownLogging(void)
{
    const ErrnoKeeper keeper;
    ConstructLogger();
    gFileLogger.Shutdown();
}

// Aligned to a line of the instruction cache, which then holds all of a filtered call: a tenth of its time.
[[gnu::aligned(64)]] bool LogMessage(int level, unsigned int mask, const char* source, const char* message)
{
    if (!gFileLogger.CanWrite(level, mask))
    {
        return true;
    }
    return WriteTexts(level, mask, source, message);
}

bool LogFormatted(int level, unsigned int mask, const char* source, const char* format, ...)
{
    if (!gFileLogger.CanWrite(level, mask))
    {
        return true;
    }
    const ErrnoKeeper keeper;
    va_list arguments;
    va_start(arguments, format);
    const bool written = format == nullptr ? gFileLogger.Write(level, mask, TextOrEmpty(source), std::string_view())
                                           : WriteFormatted(level, mask, TextOrEmpty(source), format, arguments);
    va_end(arguments);
    return written;
}

bool LogMessageAndBufferAsHex(int level, unsigned int mask, const char* source, const char* message,
                              const unsigned char* buffer, int length)
{
    if (!gFileLogger.CanWrite(level, mask))
    {
        return true;
    }
    const int dumped = QV::EmergencyScope::IsActive() ? std::min(length, kMostBytesInEmergency) : length;
    return gFileLogger.Write(level, mask, TextOrEmpty(source), HexDump(TextOrEmpty(message), buffer, dumped));
}

void SetLoggingOptions(LoggingSettings* settings)
{
    const ErrnoKeeper keeper;
    if (settings != nullptr)
    {
        ConstructLogger();
        gFileLogger.SetOptions(settings);
    }
}

void GetLoggingOptions(LoggingSettings* settings)
{
    if (settings != nullptr)
    {
        ConstructLogger();
        gFileLogger.GetOptions(settings);
    }
}
