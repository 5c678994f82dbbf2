// A host of the library: reads machine-readable zones of travel documents, logs its work into a size-rotated log,
// and reports what goes wrong as errors of the library.
#include "CommandLine.h"
#include "HostErrors.h"
#include "HostLog.h"
#include "MrzReader.h"
#include <ErrorHandlerDll/Boundary.h>
#include <ErrorHandlerDll/CrashHandler.h>
#include <ErrorHandlerDll/Log.h>

#include <cstdint>
#include <cstdio>

// Writes through a bad pointer, to show what a dump looks like. Not local to this file, so that the dump can name it.
__attribute__((noinline)) void RunIntoFault();
void RunIntoFault()
{
    volatile std::uintptr_t neverMapped = 0x9300;
    *reinterpret_cast<volatile int*>(neverMapped) = 1;
}

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

    if (!ZR_LOG(commandLine.level, ZR_LOG_ALL_CATEGORIES, "mrz_reader starts, log level %d", commandLine.level))
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
        if (results[i].code != ZR_ERROR_NONE)
        {
            std::printf("%s: %s\n", paths[i].c_str(), results[i].text);
            ++faulty;
        }
    }
    char summary[160];
    std::snprintf(summary, sizeof summary, "Summary: %zu file(s), %d zone(s) valid, %d fault(s), %u error(s), %u warning(s)",
                  results.size(), valid, faulty, reported.errors.load(), reported.warnings.load());
    std::puts(summary);
    Log(ZR_LOG_DEBUG_LOW, HostLog::kVerdicts, ZR_HERE, summary);
    return faulty == 0 ? ALL_VALID : SOME_INVALID;
}

int Run(const CommandLine& commandLine, const HostErrors::Reported& reported)
{
    StartLogging(commandLine);
    const int status = Report(commandLine.files, Mrz::ReadFiles(commandLine.files, commandLine.threads), reported);
    std::printf("Log: %s\n", GetLogFilename());
    if (commandLine.crash)
    {
        RunIntoFault();
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
    InstallCrashHandlers(CrashReport::DUMP_AND_CALLBACK); // the callback does no more than a signal handler may
    InstallTerminateHandler();
    const CrashHandlerStack stack;

    const auto fail = [](ZelvoReaderErrorCode, const char* text)
    {
        std::fprintf(stderr, "mrz_reader: %s\n", text);
        return SOME_INVALID;
    };
    const int status = AtBoundaryOr(ZR_HERE, fail, [&]() -> int { return Run(*commandLine, reported); });
    ShutdownLogging();
    return status;
}
