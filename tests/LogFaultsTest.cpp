// The log while the system fails: nothing torn, doubled or lost, and logging resumes by itself.
#include "support/Faults.h"
#include "support/LogTest.h"

#include <cerrno>

using LogFaultsTest = LogTest;

TEST_F(LogFaultsTest, FailingWritesCostNothing)
{
    const struct
    {
        unsigned int flushInterval;
        std::deque<Faults::WriteFault> faults;
    } rows[] = {{0, {{1, 0}, {7, 0}, {100, 0}}},
                {0, {{0, EINTR}, {0, EINTR}}},
                {0, {{0, EIO}, {30, 0}, {0, ENOSPC}, {1, 0}, {0, EAGAIN}}},
                {0, {{10, 0}, {0, ENOSPC}, {0, ENOSPC}, {0, ENOSPC}, {55, 0}, {0, EDQUOT}}},
                {100, {{25, 0}, {0, EIO}}}}; // when it is closed
    for (const auto& row : rows)
    {
        SetOptions(LOGGING_STRATEGY_OVERWRITE, 0, row.flushInterval);
        Faults::gWrites = row.faults;
        std::vector<std::string> expected;
        for (int i = 0; i < 10; ++i)
        {
            expected.push_back("line " + std::to_string(i));
            EXPECT_TRUE(Log(expected.back()));
        }
        EXPECT_EQ(expected, ClosedTexts()) << "row " << &row - rows;
    }
}

TEST_F(LogFaultsTest, ClosesOnAWholeLineWhenTheDiskIsFull)
{
    for (const long space : {0L, 1L, 3000L})
    {
        SetOptions(LOGGING_STRATEGY_OVERWRITE);
        Faults::gDiskSpace = space;
        for (int i = 0; i < 100; ++i)
        {
            Log("line " + std::to_string(i));
        }
        const std::vector<std::string> texts = ClosedTexts();
        EXPECT_EQ(space > 1, !texts.empty());
        for (std::size_t i = 0; i < texts.size(); ++i)
        {
            EXPECT_EQ("line " + std::to_string(i), texts[i]);
        }
        Faults::gDiskSpace = -1;
    }
}

TEST_F(LogFaultsTest, TakesBackALongLineThatFailed)
{
    const struct
    {
        int strategy;
        bool closes;
    } rows[] = {{LOGGING_STRATEGY_APPEND, false}, {LOGGING_STRATEGY_APPEND, true}, {LOGGING_STRATEGY_OVERWRITE, false}};
    for (const auto& row : rows)
    {
        Start("long" + std::to_string(&row - rows));
        SetOptions(row.strategy);
        Faults::gWrites = {{100000, 0}, {0, ENOSPC}, {0, ENOSPC}, {0, ENOSPC}};
        Log(std::string(200000, 'x'));
        if (row.closes) // with no room for a line feed either
        {
            ShutdownLogging();
        }
        Faults::gWrites.clear();
        Log("next");
        EXPECT_EQ(std::vector<std::string>{"next"}, ClosedTexts("long" + std::to_string(&row - rows)));
    }
}

TEST_F(LogFaultsTest, AForkThatCannotFlushLeavesTheLinesToTheParent)
{
    const struct
    {
        const char* what;
        std::deque<Faults::WriteFault> faults;
    } rows[] = {{"nothing written", {{0, ENOSPC}}}, {"half a line", {{30, 0}, {0, ENOSPC}}}};
    for (const auto& row : rows)
    {
        Start(row.what);
        Log("parent");
        Faults::gWrites = row.faults;
        EXPECT_EQ(0, RunChild(
                         []
                         {
                             Log("child");
                             ShutdownLogging();
                             return 0;
                         }));
        EXPECT_EQ((std::vector<std::string>{"child", "parent"}), ClosedTexts(row.what)) << row.what;
    }
}

TEST_F(LogFaultsTest, StartsOnALineOfItsOwn)
{
    for (const int strategy : {LOGGING_STRATEGY_APPEND, LOGGING_STRATEGY_FILE_SIZE})
    {
        for (const std::size_t length : {std::size_t{10}, std::size_t{100000}})
        {
            const std::string name = std::to_string(strategy) + std::to_string(length) + ".1.log";
            std::ofstream(m_folder / name) << "whole\nkilled in the mid";
            SetOptions(strategy, 1000000);
            Start(name);
            Log(std::string(length, 'x'));
            ShutdownLogging();
            Log("again");
            ShutdownLogging();
            const std::string text = OnDisk(name);
            EXPECT_TRUE(text.starts_with("whole\nkilled in the mid\n"));
            EXPECT_EQ(2u, ParseLog(text.substr(text.find("mid") + 4)).size());
        }
    }
}

TEST_F(LogFaultsTest, StaysInANumberedFileThatCannotBeFlushed)
{
    SetOptions(LOGGING_STRATEGY_FILE_SIZE, 2000);
    Faults::gDiskSpace = 1000;
    for (int i = 0; i < 100; ++i)
    {
        Log("line");
    }
    Faults::gDiskSpace = -1;
    Log("room again");
    EXPECT_EQ(std::vector<std::string>(100, "line"), ClosedTexts("app.1.log"));
    EXPECT_EQ(std::vector<std::string>{"room again"}, ClosedTexts("app.2.log"));
}

TEST_F(LogFaultsTest, ALongLineDoesNotOvertakeTheOnesBefore)
{
    Log("first");
    Faults::gWrites = {{10, 0}, {0, EIO}};
    Log(std::string(200000, 'x'));
    Log("last");
    const std::vector<std::string> texts = ClosedTexts();
    ASSERT_LE(2u, texts.size());
    EXPECT_EQ("first", texts.front());
    EXPECT_EQ("last", texts.back());
}

TEST_F(LogFaultsTest, OpensAsSoonAsItCan)
{
    for (const int strategy : {LOGGING_STRATEGY_APPEND, LOGGING_STRATEGY_OVERWRITE, LOGGING_STRATEGY_FILE_SIZE})
    {
        SetOptions(strategy, 100000);
        InitialiseLogging(true, 3, 1, strategy == LOGGING_STRATEGY_FILE_SIZE ? "/dev/null/app.log" : nullptr);
        EXPECT_FALSE(Log("a name that cannot be opened"));
        Start(std::string(5000, 'x'));
        EXPECT_FALSE(Log("a name too long"));

        const std::string folder = "later" + std::to_string(strategy);
        Start(folder + "/app.1.log");
        EXPECT_FALSE(Log("lost"));
        std::filesystem::create_directory(m_folder / folder);
        Faults::gOpenErrors = {EMFILE, EACCES, EINTR};
        EXPECT_FALSE(Log("lost"));
        EXPECT_FALSE(Log("lost"));
        EXPECT_TRUE(Log("kept")); // the interrupted open is tried again at once
        EXPECT_EQ(std::vector<std::string>{"kept"}, ClosedTexts(folder + "/app.1.log"));
    }
}
