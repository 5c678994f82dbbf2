// Switches the library's log on, into a folder of its own, and reads it back without the fields that vary.
#ifndef TESTS_SUPPORT_CAPTUREDLOG_H
#define TESTS_SUPPORT_CAPTUREDLOG_H

#include "ErrorHandlerDll/ErrorHandlerDll.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
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
        std::vector<std::string> lines;
        std::ifstream file(m_folder / "reader.log");
        for (std::string line; std::getline(file, line);)
        {
            lines.push_back(WithoutVaryingFields(line));
        }
        return lines;
    }

    std::vector<std::string> GetLines() const
    {
        ShutdownLogging();
        return GetFlushedLines();
    }

private:
    static std::string WithoutVaryingFields(const std::string& line)
    {
        constexpr std::size_t kLevelAt = 24;
        const std::string afterThread = "] - ";
        const std::size_t levelEnd = line.find_last_not_of(' ', line.find(" - [ThreadID: ", kLevelAt) - 1) + 1;
        std::string text = line.substr(line.find(afterThread, levelEnd) + afterThread.size());
        const std::string beforeNumber = ".cpp(";
        if (const std::size_t found = text.find(beforeNumber); found != std::string::npos)
        {
            const std::size_t number = found + beforeNumber.size();
            text.replace(number, text.find(')', number) - number, "N");
        }
        return line.substr(kLevelAt, levelEnd - kLevelAt) + "|" + text;
    }

    std::filesystem::path m_folder;
};

#endif
