// The log while the system fails: nothing torn, doubled or lost, and logging resumes by itself.
#include "support/Allocations.h"
#include "support/Faults.h"
#include "support/LogTest.h"

#include <cerrno>
#include <functional>
#include <new>
#include <thread>

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

// A full disk takes lines until the buffer is full too; what follows is dropped until there is room again.
TEST_F(LogFaultsTest, ResumesWithoutASeamAfterAFullDisk)
{
    SetOptions(LOGGING_STRATEGY_APPEND, 0, 9);
    Faults::gDiskSpace = 3000;
    int line = 0;
    const auto log = [&line](int count)
    {
        for (const int end = line + count; line < end; ++line)
        {
            Log(std::to_string(line));
        }
    };
    log(3000);
    Faults::gDiskSpace = -1;
    log(500);

    const std::vector<std::string> texts = ClosedTexts();
    ASSERT_LT(1000u, texts.size());
    int before = -1;
    int gaps = 0;
    for (const std::string& text : texts)
    {
        const int number = std::stoi(text);
        EXPECT_LT(before, number);
        gaps += number != before + 1 ? 1 : 0;
        before = number;
    }
    EXPECT_EQ(3499, before);
    EXPECT_EQ(1, gaps);
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

TEST_F(LogFaultsTest, StartsTheNextLineOnItsOwnAfterALongOneFailed)
{
    Faults::gWrites = {{100000, 0}, {0, ENOSPC}};
    Log(std::string(200000, 'x'));
    Log("next");
    ShutdownLogging();
    const std::string text = OnDisk();
    const std::vector<LogLine> lines = ParseLog(text.substr(text.find('\n') + 1));
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ("next", lines[0].m_text);
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

TEST_F(LogFaultsTest, SurvivesEveryFailingAllocation)
{
    const unsigned char bytes[40] = {};
    const std::string longText(3000, 'x');
    const std::function<void()> calls[] = {[] { Log("message"); },
                                           [&] { LogFormatted(0, 1, "", "%s", longText.c_str()); },
                                           [&] { LogMessageAndBufferAsHex(9, 1, "", "no", bytes, 40); },
                                           [this] { Start("again.log"); },
                                           [] { SetOptions(LOGGING_STRATEGY_FILE_SIZE, 1000); },
                                           []
                                           {
                                               SetOptions(LOGGING_STRATEGY_APPEND);
                                           }};
    std::size_t next = 0;
    int failures = 0;
    for (const auto& call : calls)
    {
        bool failed = true;
        for (long n = 0; failed; ++n)
        {
            SetOptions(LOGGING_STRATEGY_FILE_SIZE, 1000); // the call opens the file, searches and rotates
            Start("app.log");
            Allocations::tFailAfter = n;
            try
            {
                call();
            }
            catch (const std::bad_alloc&)
            {
                ++failures;
            }
            failed = Allocations::tFailAfter < 0;
            Allocations::tFailAfter = -1;
            std::thread([] { EXPECT_TRUE(Log("next")); }).join(); // another thread: the section is free
            ++next;
        }
    }
    EXPECT_LT(10, failures);
    SetOptions(LOGGING_STRATEGY_APPEND);
    std::size_t found = 0;
    for (const auto& file : std::filesystem::directory_iterator(m_folder / ""))
    {
        for (const LogLine& line : ParseLog(ReadFile(file.path())))
        {
            found += line.m_text == "next" ? 1u : 0u;
        }
    }
    EXPECT_EQ(next, found);
}
