// Numbered files: their names, the search for them, the moves from one to the next.
#include "support/Faults.h"
#include "support/LogTest.h"

#include <climits>
#include <map>
#include <tuple>

using FileSizeRotation = LogTest;

namespace
{

// Makes a file whose last line is whole.
void Fill(const std::string& path, std::size_t size)
{
    std::ofstream(path).seekp(static_cast<std::streamoff>(size - 1)).put('\n');
}

// Logs a line of so many bytes.
void LogBytes(std::size_t size)
{
    const std::string prefix = "16/11/26 15:38:45.007 - ERROR      - [ThreadID: " + std::to_string(gettid()) + "] - \n";
    LogMessage(0, 1, "", std::string(size - prefix.size(), 'x').c_str());
}

} // namespace

TEST_F(FileSizeRotation, GoesOnWithTheHighestFileOfTheSeries)
{
    const char* const rows[][4] = {
        {"a.log", "a.12.log", "a.12.log", "a.13.log"},
        {"a.12.log", "none", "a.1.log", "a.2.log"},
        {"a.b.c", "a.7.c", "a.b.7.c", "a.b.8.c"},
        {"a.-3.log", "a.-2.log", "a.1.log", "a.2.log"},
        {"a. 3.log", "a. 07.log", "a.7.log", "a.8.log"},
        {"a.3a.log", "a.7a.log", "a.3a.1.log", "a.3a.2.log"},
        {"logs.1/reader.1.log", "logs.1/reader.4.log", "logs.1/reader.4.log", "logs.1/reader.5.log"},
        {"v.10/reader", "v.10/reader.7.log", "v.10/reader.7.log", "v.10/reader.8.log"},
        {".3", ".7.3", ".7.3", ".8.3"},
        {"1.2\\3.log", "1.9\\3.7.log", "1.2\\3.1.log", "1.2\\3.2.log"},
        {"a?[1].log", "ab1.7.log", "a?[1].1.log", "a?[1].2.log"},
        {"a.x*", "a.7.x", "a.7.x*", "a.8.x*"}, // the only character with a meaning
        {"a.log", "a.7.logs", "a.1.log", "a.2.log"},
        {"a.log", "ba.7.log", "a.1.log", "a.2.log"},
        {"a.log", "a.2147483647.log", "a.1.log", "a.2.log"},
        {"a.99999999999.log", "a.99999999999.log", "a.99999999999.1.log", "a.99999999999.2.log"},
        {"a.log", "a.7.log/", "a.8.log", "a.9.log"}}; // a folder
    for (const auto& [name, onDisk, opened, next] : rows)
    {
        m_folder.Empty();
        std::filesystem::create_directories(std::filesystem::path(m_folder / onDisk).parent_path());
        Fill(m_folder / onDisk, 1); // fails where there is a folder
        SetOptions(LOGGING_STRATEGY_FILE_SIZE, 100);
        Start(name);
        LogBytes(90);
        const char* const firstName = GetLogFilename();
        ShutdownLogging();
        LogBytes(60); // opens it again, and moves on
        EXPECT_EQ(m_folder / next, GetLogFilename()) << name;
        EXPECT_EQ(m_folder / opened, firstName) << "until the next move";
    }
}

TEST_F(FileSizeRotation, PutsEachLineWhereItBelongs)
{
    using Sizes = std::map<std::string, std::size_t>; // of files, by the text between "app." and "log"
    Sizes many;
    for (int number = 1; number <= 300; ++number) // more than one system call gives
    {
        many[std::to_string(number) + "."] = 5;
    }
    Sizes manyLeft = many;
    manyLeft["300."] = 105;
    const std::tuple<const char*, Sizes, unsigned int, std::vector<std::size_t>, Sizes> rows[] = {
        {"just fits", {{"1.", 900}}, 1000, {99}, {{"1.", 999}}},
        {"reaches the limit", {{"1.", 900}}, 1000, {100}, {{"1.", 900}, {"2.", 100}}},
        {"limit 0", {}, 0, {100, 100}, {{"1.", 0}, {"2.", 100}, {"3.", 100}}},
        {"longer than the limit", {}, 200, {100, 500, 100}, {{"1.", 100}, {"2.", 500}, {"3.", 100}}},
        {"largest limit", {}, UINT_MAX, {100, 100}, {{"1.", 200}}},
        {"highest by value", many, 1000, {100}, manyLeft},
        {"no numbers", {{"old.", 5}, {".", 5}}, 1000, {100}, {{"old.", 5}, {".", 5}, {"1.", 100}}},
        {"far past the limit", {{"1.", 5ull << 30}}, 2000000000, {100}, {{"1.", 5ull << 30}, {"2.", 100}}},
        {"last number", {{"2147483646.", 950}}, 1000, {100, 950}, {{"2147483646.", 950}, {"2147483647.", 1050}}}};
    for (const auto& [what, present, limit, lines, expected] : rows)
    {
        m_folder.Empty();
        for (const auto& [number, size] : present)
        {
            Fill(m_folder / ("app." + number + "log"), size);
        }
        SetOptions(LOGGING_STRATEGY_FILE_SIZE, limit);
        Start("app.log");
        Faults::gCall = Faults::kSearch;
        Faults::gCalls.resize(9);
        for (const std::size_t size : lines)
        {
            LogBytes(size);
        }
        EXPECT_EQ(8u, Faults::gCalls.size()) << what; // one search
        Faults::gCalls.clear();
        Faults::gCall = SYS_writev;
        ShutdownLogging();
        Sizes left;
        for (const auto& file : std::filesystem::directory_iterator(m_folder / ""))
        {
            const std::string name = file.path().filename();
            left[name.substr(4, name.size() - 7)] = file.file_size();
        }
        EXPECT_EQ(expected, left) << what;
    }
}
