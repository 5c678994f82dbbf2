#include "CommandLine.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <getopt.h>

const char* const kUsage =
    "usage: mrz_reader [options] FILE...\n"
    "Reads machine-readable zones (TD1, TD2, TD3) from text files; blank lines separate zones.\n"
    "  --log FILE             log file series, default mrz_reader.log (gives mrz_reader.1.log, ...)\n"
    "  --max-file-size BYTES  a log file is left before it reaches this size, default 65536\n"
    "  --level N              0 errors, 1 warnings, 2 files and verdicts, 3 raw bytes too (default)\n"
    "  --threads N            1 to 64, default 4\n"
    "  --crash                runs into a bad pointer after the files (none needed), to show the dump\n"
    "  --help                 this text\n"
    "exit status: 0 all zones valid, 1 some not, 2 wrong command line\n";

namespace
{

template <typename Number>
bool ParseNumber(const char* option, Number lowest, Number highest, Number& number)
{
    const char* end = optarg + std::strlen(optarg);
    const auto [stop, error] = std::from_chars(optarg, end, number);
    if (error == std::errc() && stop == end && number >= lowest && number <= highest)
    {
        return true;
    }
    std::fprintf(stderr, "mrz_reader: bad number for --%s: %s\n", option, optarg);
    return false;
}

bool ApplyOption(int option, CommandLine& result)
{
    switch (option)
    {
    case 'l':
        result.logFile = optarg;
        return true;
    case 't':
        return ParseNumber("threads", 1u, 64u, result.threads);
    case 's':
        return ParseNumber("max-file-size", 1u, 0x7FFFFFFFu, result.maxFileSize);
    case 'v':
        return ParseNumber("level", 0, 9, result.level);
    case 'c':
        result.crash = true;
        return true;
    case 'h':
        result.help = true;
        return true;
    default:
        return false; // getopt_long has said why
    }
}

} // namespace

std::optional<CommandLine> ParseCommandLine(int argc, char** argv)
{
    static const option kOptions[] = {{"log", required_argument, nullptr, 'l'},
                                      {"threads", required_argument, nullptr, 't'},
                                      {"max-file-size", required_argument, nullptr, 's'},
                                      {"level", required_argument, nullptr, 'v'},
                                      {"crash", no_argument, nullptr, 'c'},
                                      {"help", no_argument, nullptr, 'h'},
                                      {nullptr, 0, nullptr, 0}};
    CommandLine result;
    for (int option; (option = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;)
    {
        if (!ApplyOption(option, result))
        {
            return std::nullopt;
        }
    }
    result.files.assign(argv + optind, argv + argc);
    if (result.files.empty() && !result.help && !result.crash)
    {
        std::fputs("mrz_reader: no file named\n", stderr);
        return std::nullopt;
    }
    return result;
}
