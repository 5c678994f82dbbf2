// A host of the library: reads machine-readable zones of travel documents and logs its work into a size-rotated log.
#include <algorithm>
#include <cstdio>

#include "CommandLine.h"
#include "HostLog.h"
#include "MrzReader.h"

#define SOURCE(function) HOST_LOG_SOURCE(Main, function)

namespace
{

enum ExitStatus
{
    ALL_VALID = 0,
    SOME_INVALID = 1,
    WRONG_USAGE = 2
};

// Before any other thread runs, as a host does it.
void StartLogging(const CommandLine& commandLine)
{
    InitialiseLogging(true, commandLine.level, ZR_LOG_ALL_CATEGORIES, commandLine.logFile.c_str());
    LoggingSettings settings = {};
    GetLoggingOptions(&settings);
    settings.strategy = LOGGING_STRATEGY_FILE_SIZE;
    settings.maxFileSize = commandLine.maxFileSize;
    SetLoggingOptions(&settings);

    if (!LogFormatted(ZR_LOG_ERROR, HostLog::kFiles, SOURCE(StartLogging), "mrz_reader starts, log level %d",
                      commandLine.level))
        std::fprintf(stderr, "mrz_reader: cannot write the log %s; going on without\n", commandLine.logFile.c_str());
}

int Report(const std::vector<Mrz::Verdict>& verdicts, size_t fileCount)
{
    for (const Mrz::Verdict& verdict : verdicts)
        std::printf("%s\n", verdict.text.c_str());

    const auto valid = std::count_if(verdicts.begin(), verdicts.end(), [](const Mrz::Verdict& v) { return v.valid; });
    const auto faulty = static_cast<std::ptrdiff_t>(verdicts.size()) - valid;
    char summary[128];
    std::snprintf(summary, sizeof summary, "Summary: %zu file(s), %td zone(s) valid, %td fault(s)", fileCount, valid,
                  faulty);
    std::puts(summary);
    LogMessage(ZR_LOG_DEBUG_LOW, HostLog::kVerdicts, SOURCE(Report), summary);
    return faulty == 0 ? ALL_VALID : SOME_INVALID;
}

} // namespace

int main(int argc, char** argv)
{
    const std::optional<CommandLine> commandLine = ParseCommandLine(argc, argv);
    if (!commandLine || commandLine->help)
    {
        std::fputs(kUsage, commandLine ? stdout : stderr);
        return commandLine ? ALL_VALID : WRONG_USAGE;
    }

    StartLogging(*commandLine);
    const int status = Report(Mrz::ReadFiles(commandLine->files, commandLine->threads), commandLine->files.size());
    std::printf("Log: %s\n", GetLogFilename());
    ShutdownLogging();
    return status;
}
