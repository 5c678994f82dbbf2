// This library.
#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "Subject.h"

namespace Subject
{

const char* const kName = "library";
const bool kIsLibrary = true;
const bool kRotates = true;

void Open(const std::string& folder, std::size_t maxFileSize)
{
    LoggingSettings settings = {};
    settings.flushInterval = static_cast<unsigned int>(gLinesPerFlush) - 1;
    settings.strategy = maxFileSize > 0 ? LOGGING_STRATEGY_FILE_SIZE : LOGGING_STRATEGY_APPEND;
    settings.maxFileSize = static_cast<std::uint32_t>(maxFileSize);
    InitialiseLogging(true, ZR_LOG_WARNING, 1, (folder + "/app.log").c_str());
    SetLoggingOptions(&settings);
}

bool Log(const char* text)
{
    return LogMessage(ZR_LOG_WARNING, 1, "", text);
}

// Flushes by count only; a change of nothing closes the file.
void Flush()
{
    ShutdownLogging();
}

void Close()
{
    ShutdownLogging();
}

std::size_t PrefixLength(std::string_view line)
{
    return MatchForm(line, "00/00/00 00:00:00.000 - * - [ThreadID: #] - ");
}

bool IsOwnLine(std::string_view)
{
    return false;
}

} // namespace Subject
