// Switches the library's log on, into a folder of its own, and reads it back without the fields that vary.
#ifndef TESTS_SUPPORT_CAPTUREDLOG_H
#define TESTS_SUPPORT_CAPTUREDLOG_H

#include "ErrorHandlerDll/ErrorHandlerDll.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

class CapturedLog
{
public:
    explicit CapturedLog(int level = ZR_LOG_DEBUG_HIGH, unsigned int mask = ZR_LOG_ALL_CATEGORIES, bool enable = true)
    {
        std::string folder = std::filesystem::temp_directory_path() / "ErrorHandlerDll.XXXXXX";
        m_folder = mkdtemp(folder.data());
        InitialiseLogging(enable, level, mask, (m_folder / "reader.log").c_str());
    }
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;
    ~CapturedLog()
    {
        InitialiseLogging(false, ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, "ZelvoReader.log");
        std::filesystem::remove_all(m_folder);
    }

    // The lines that have reached the file: level, '|', source and message. Source line numbers read N.
    std::vector<std::string> GetFlushedLines() const
    {
        static const std::regex kPrefix(R"(^.{24}(\S+(?: \d+)?) +- \[ThreadID: \d+\] - )");
        static const std::regex kSourceLine(R"(\.cpp\(\d+\))");
        std::vector<std::string> lines;
        std::ifstream file(m_folder / "reader.log");
        for (std::string line; std::getline(file, line);)
        {
            lines.push_back(std::regex_replace(std::regex_replace(line, kPrefix, "$1|"), kSourceLine, ".cpp(N)"));
        }
        return lines;
    }

    std::vector<std::string> GetLines() const
    {
        ShutdownLogging();
        return GetFlushedLines();
    }

private:
    std::filesystem::path m_folder;
};

#endif
