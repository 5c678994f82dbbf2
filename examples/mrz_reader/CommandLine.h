#pragma once

#include <optional>
#include <string>
#include <vector>

struct CommandLine
{
    bool help = false;
    bool crash = false;
    std::string logFile = "mrz_reader.log";
    unsigned int threads = 4;
    unsigned int maxFileSize = 64 * 1024; // bytes
    int level = 3;
    std::vector<std::string> files;
};

extern const char* const kUsage;

// Nothing when the command line is wrong; the reason has then been written to standard error.
std::optional<CommandLine> ParseCommandLine(int argc, char** argv);
