// What tests of the log share: a folder of their own, the log switched on in it, log lines read back, child processes.
#ifndef TESTS_SUPPORT_LOGTEST_H
#define TESTS_SUPPORT_LOGTEST_H

#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "support/TemporaryFolder.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

struct LogLine
{
    std::string m_stamp; // year first, so that stamps sort as texts
    std::string m_level;
    std::string m_text; // source and message
};

// Reads a log whose entries have one line each. A line that is no whole entry fails the test.
inline std::vector<LogLine> ParseLog(const std::string& text)
{
    std::vector<LogLine> lines;
    EXPECT_TRUE(text.empty() || text.back() == '\n') << "torn at the end: " << text.substr(text.rfind('\n') + 1);
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
    {
        int textAt = 0;
        char level[14] = "";
        std::sscanf(line.c_str(), "%*2d/%*2d/%*2d %*2d:%*2d:%*2d.%*3d - %13c[ThreadID: %*d] -%n", level, &textAt);
        // A blank in the format would also skip those that the text starts with.
        const std::size_t blankAt = static_cast<std::size_t>(textAt);
        EXPECT_TRUE(line[blankAt] == ' ' && line.find("ThreadID", blankAt) == std::string::npos) << "not whole: " << line;
        const std::string stamp = line.substr(6, 2) + line.substr(3, 2) + line.substr(0, 2) + line.substr(8, 13);
        lines.push_back({stamp, level, line.substr(blankAt + 1)});
    }
    return lines;
}

// Runs `body`, whose result is the exit status, in a child process that is killed when it hangs.
//   returns the exit status, or the negative number of the signal that ended the child
template <class Body>
int RunChild(Body body)
{
    const pid_t child = fork();
    if (child == 0)
    {
        alarm(30);
        const std::string command = "exit " + std::to_string(body());
        // Not _exit: memory checkers would find what belonged to the threads of the parent.
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        _exit(127);
    }
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// Switches the log on into a folder of its own.
class CapturedLog
{
public:
    explicit CapturedLog(int level = ZR_LOG_DEBUG_HIGH, unsigned int mask = ZR_LOG_ALL_CATEGORIES, bool enable = true)
    {
        InitialiseLogging(enable, level, mask, (m_folder / "app.log").c_str());
    }
    ~CapturedLog() { InitialiseLogging(false, ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, "ZelvoReader.log"); }

    // The lines that have reached the file: level, '|', source and message. Numbers of source lines read N.
    std::vector<std::string> GetFlushedLines() const
    {
        std::vector<std::string> lines;
        for (const LogLine& line : ParseLog(ReadFile(m_folder / "app.log")))
        {
            const std::string text = std::regex_replace(line.m_text, std::regex(R"((\w)\(\d+\))"), "$1(N)");
            lines.push_back(line.m_level.substr(0, line.m_level.find_last_not_of(" -") + 1) + "|" + text);
        }
        return lines;
    }
    std::vector<std::string> GetLines() const
    {
        ShutdownLogging();
        return GetFlushedLines();
    }

protected:
    TemporaryFolder m_folder;
};

class LogTest : public testing::Test, protected CapturedLog
{
protected:
    using Texts = std::vector<std::string>;

    ~LogTest() override { SetOptions(LOGGING_STRATEGY_APPEND); }

    void Start(const std::string& name) const
    {
        InitialiseLogging(true, ZR_LOG_DEBUG_HIGH, ZR_LOG_ALL_CATEGORIES, (m_folder / name).c_str());
    }
    static void SetOptions(int strategy, unsigned int maxFileSize = 0, unsigned int flushInterval = 100)
    {
        LoggingSettings settings = {-5, 0, flushInterval, static_cast<ZelvoReaderLoggingStrategy>(strategy), maxFileSize, 0};
        SetLoggingOptions(&settings);
    }
    static bool Log(const std::string& message) { return LogMessage(ZR_LOG_ERROR, 1, "", message.c_str()); }

    std::string OnDisk(const std::string& name = "app.log") const { return ReadFile(m_folder / name); }
    static Texts TextsOf(const std::string& log)
    {
        Texts texts;
        for (const LogLine& line : ParseLog(log))
        {
            texts.push_back(line.m_text);
        }
        return texts;
    }
    Texts ClosedTexts(const std::string& name = "app.log") const
    {
        ShutdownLogging();
        return TextsOf(OnDisk(name));
    }
};

#endif
