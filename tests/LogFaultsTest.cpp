// The log while the system fails: nothing torn, doubled or lost, and logging resumes by itself.
#include "support/Faults.h"
#include "support/LogTest.h"

#include <cerrno>

using LogFaultsTest = LogTest;
using Texts = std::vector<std::string>;

TEST_F(LogFaultsTest, WritesWholeLinesOnceAndInTheirOrder)
{
    const std::string longText(200000, 'x');
    const std::string torn = "whole\nkilled in the mid";
    const struct
    {
        const char* what;
        int strategy;
        unsigned int flushInterval;
        std::string present;
        std::deque<Faults::WriteFault> faults;
        Texts lines;
        Texts expected;
    } rows[] = {
        {"at the end", 0, 100, "", {{25, 0}, {0, EIO}}, {"a", "b"}, {"a", "b", "end"}},
        {"failing long", 0, 0, "", {{10, 0}, {0, ENOSPC}, {0, ENOSPC}, {55, 0}, {0, EDQUOT}}, {"a", "b"}, {"a", "b", "end"}},
        {"long line", 0, 100, "", {{100000, 0}, {0, ENOSPC}, {0, ENOSPC}}, {longText}, {"end"}},
        {"long line, emptied", 1, 100, "", {{100000, 0}, {0, ENOSPC}, {0, ENOSPC}}, {longText}, {"end"}},
        {"long line behind another", 0, 100, "", {{10, 0}, {0, EIO}}, {"first", longText}, {"first", "end"}},
        {"torn before", 0, 100, torn, {}, {"a"}, {"a", "end"}},
        {"torn before, numbered", 2, 100, torn, {}, {"a"}, {"a", "end"}},
        {"torn before a long line", 0, 100, torn, {}, {longText}, {longText, "end"}},
    };
    for (const auto& row : rows)
    {
        const std::string name = row.what + std::string(".1.log");
        std::ofstream(m_folder / name) << row.present;
        SetOptions(row.strategy, 1000000, row.flushInterval);
        Start(name);
        Faults::gWrites = row.faults;
        for (const std::string& line : row.lines)
        {
            EXPECT_TRUE(Log(line));
        }
        if (row.lines[0] == longText) // closed with no room for a line feed either
        {
            ShutdownLogging();
            Faults::gWrites.clear();
            SetOptions(LOGGING_STRATEGY_APPEND);
        }
        Log("end");
        ShutdownLogging();
        const std::string text = OnDisk(name);
        const std::string before = row.present + (row.present.empty() ? "" : "\n");
        EXPECT_EQ(before, text.substr(0, before.size())) << row.what;
        EXPECT_EQ(row.expected, TextsOf(text.substr(before.size()))) << row.what;
    }
}

TEST_F(LogFaultsTest, StaysInAFullFileUntilItsLinesAreWritten)
{
    SetOptions(LOGGING_STRATEGY_FILE_SIZE, 2000);
    Faults::gDiskSpace = 1500;
    for (int i = 0; i < 100; ++i)
    {
        Log("line");
    }
    Faults::gDiskSpace = -1;
    Log("room again");
    EXPECT_EQ(Texts(100, "line"), TextsOf(OnDisk("app.1.log")));
    EXPECT_EQ(Texts{"room again"}, ClosedTexts("app.2.log"));
}

TEST_F(LogFaultsTest, OpensAsSoonAsItCan)
{
    for (const int strategy : {LOGGING_STRATEGY_OVERWRITE, LOGGING_STRATEGY_FILE_SIZE})
    {
        SetOptions(strategy, 100000);
        for (const std::string& name : {std::string("missing/app.log"), std::string(5000, 'x')})
        {
            Start(name);
            EXPECT_FALSE(Log("lost"));
        }
        Start("app.1.log");
        Faults::gOpenErrors = {EMFILE, EINTR};
        EXPECT_FALSE(Log("lost"));
        EXPECT_TRUE(Log("kept")); // the interrupted open is tried again at once
        EXPECT_EQ(strategy == LOGGING_STRATEGY_OVERWRITE ? Texts{"kept"} : (Texts{"kept", "kept"}),
                  ClosedTexts("app.1.log"));
    }
}
