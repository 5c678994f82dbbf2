// A host of the library: reads machine-readable zones of travel documents logs its work into a size-rotated log,
// and reports what goes wrong as errors of the library.
#include "Boundary.h"
#include "CommandLine.h"
#include "CrashHandler.h"
#include "HostErrors.h"
#include "HostLog.h"
#include "MrzReader.h"

#include <cstdio>

#define SOURCE(function) HOST_LOG_SOURCE(Main, function)

namespace
{

enum ExitStatus
{
    ALL_VALID = 0,
    SOME_INVALID = 1,
    WRONG_USAGE = 2
};

void StartLogging(const CommandLine& commandLine)
{
    InitialiseLogging(true, commandLine.level, ZR_LOG_ALL_CATEGORIES, commandLine.logFile.c_str());
    LoggingSettings settings = {};
    GetLoggingOptions(&settings);
    settings.strategy = LOGGING_STRATEGY_FILE_SIZE;
    settings.maxFileSize = commandLine.maxFileSize;
    SetLoggingOptions(&settings);

    if (!LogFormatted(ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, SOURCE(StartLogging), "mrz_reader starts, log level %d",
                      commandLine.level))
    {
        std::fprintf(stderr, "mrz_reader: cannot write the log %s; going on without\n", commandLine.logFile.c_str());
    }
}

int Report(const std::vector<std::string>& paths, const std::vector<Mrz::FileResult>& results,
           const HostErrors::Reported& reported)
{
    int valid = 0;
    int faulty = 0;
    for (size_t i = 0; i < results.size(); ++i)
    {
        for (const Mrz::Verdict& verdict : results[i].verdicts)
        {
            std::printf("%s\n", verdict.text.c_str());
            ++(verdict.valid ? valid : faulty);
        }
        if (results[i].outcome.code != ZR_ERROR_NONE)
        {
            std::printf("%s: %s\n", paths[i].c_str(), results[i].outcome.text);
            ++faulty;
        }
    }
    char summary[160];
    std::snprintf(summary, sizeof summary, "Summary: %zu file(s), %d zone(s) valid, %d fault(s), %u error(s), %u warning(s)",
                  results.size(), valid, faulty, reported.errors.load(), reported.warnings.load());
    std::puts(summary);
    LogMessage(ZR_LOG_DEBUG_LOW, HostLog::kVerdicts, SOURCE(Report), summary);
    return faulty == 0 ? ALL_VALID : SOME_INVALID;
}

int Run(const CommandLine& commandLine, const HostErrors::Reported& reported)
{
    StartLogging(commandLine);
    const int status = Report(commandLine.files, Mrz::ReadFiles(commandLine.files, commandLine.threads), reported);
    std::printf("Log: %s\n", GetLogFilename());
    if (commandLine.crash)
    {
        CrashHandler::RunIntoFault();
    }
    return status;
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

    // Before any other thread runs.
    static HostErrors::Reported reported;
    HostErrors::Register(reported);
    CrashHandler::Install();
    const CrashHandler::AlternateStack stack;

    int status = SOME_INVALID;
    const Boundary::Outcome outcome = Boundary::Outer(SOURCE(main), [&] { status = Run(*commandLine, reported); });
    if (outcome.code != ZR_ERROR_NONE)
    {
        std::fprintf(stderr, "mrz_reader: %s\n", outcome.text);
    }
    ShutdownLogging();
    return status;
}
