// Numbered files: their names, the search for them, the moves from one to the next.
#include "ErrorHandlerDll/logging/FileSizeLoggerStrategy.h"
#include "ZelvoWinAPI/ZelvoWinAPI.h"
#include "support/Faults.h"
#include "support/LogTest.h"

#include <climits>
#include <map>
#include <set>

using FileSizeRotation = LogTest;

namespace
{

std::string Mask(const std::string& name, const char* wildcard = ".*")
{
    return FileDependentLoggerStrategy::GetFileSearchMask(name, wildcard).GetData();
}

std::string Build(const std::string& name, int number)
{
    return FileSizeLoggerStrategy::BuildLogFileName(name, number).GetData();
}

int Number(const std::string& name)
{
    return FileSizeLoggerStrategy::GetFileIDFromFileName(name);
}

// Keeps the names that a search reports.
class Search : public FileDependentLoggerStrategy
{
public:
    explicit Search(const std::string& mask) : FileDependentLoggerStrategy(nullptr) { SearchCurrentFiles({mask}); }
    bool PrepareOutputSource() override { return false; }
    void OnFileFound(std::string_view name) override { EXPECT_TRUE(m_names.emplace(name).second); }

    std::set<std::string> m_names;
};

void Fill(const std::string& path, std::size_t size)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream file(path);
    if (size > 0)
    {
        file.seekp(static_cast<std::streamoff>(size - 1)).put('\n'); // a file whose last line is whole
    }
}

// Logs a line of so many bytes.
void LogBytes(std::size_t size)
{
    const std::size_t prefix = std::string("16/11/26 15:38:45.007 - ERROR      - [ThreadID: ] - \n").size();
    LogMessage(0, 1, "", std::string(size - prefix - std::to_string(gettid()).size(), 'x').c_str());
}

const struct
{
    const char *name, *mask;
    int number;
    const char* seventh;
} kNames[] = {{"ZelvoReader.log", "ZelvoReader.*.log", -1, "ZelvoReader.7.log"},
              {"ZelvoReader.12.log", "ZelvoReader.*.log", 12, "ZelvoReader.7.log"},
              {"/var/log/ZelvoReader.log", "/var/log/ZelvoReader.*.log", -1, "/var/log/ZelvoReader.7.log"},
              {"dir.x/log.txt", "dir.x/log.*.txt", -1, "dir.x/log.7.txt"},
              {"a.b.c", "a.*.c", -1, "a.b.7.c"},
              {".log", ".*.log", -1, ".7.log"},
              {"x.", "x.*.", -1, "x.7."},
              {"ZelvoReader.-3.log", "ZelvoReader.*.log", -3, "ZelvoReader.7.log"},
              {"ZelvoReader.+.log", "ZelvoReader.*.log", 0, "ZelvoReader.7.log"},
              {"ZelvoReader. 3.log", "ZelvoReader.*.log", 3, "ZelvoReader.7.log"},
              {"ZelvoReader.03.log", "ZelvoReader.*.log", 3, "ZelvoReader.7.log"},
              {"ZelvoReader.3a.log", "ZelvoReader.*.log", -1, "ZelvoReader.3a.7.log"},
              {"ZelvoReader.3 .log", "ZelvoReader.*.log", -1, "ZelvoReader.3 .7.log"},
              {"ZelvoReader..log", "ZelvoReader.*.log", -1, "ZelvoReader..7.log"},
              {"5.6.7", "5.*.7", 6, "5.7.7"},
              {"logs.1/reader.1.log", "logs.1/reader.*.log", 1, "logs.1/reader.7.log"},
              {"v.10/reader", "v.10/reader.*.log", -1, "v.10/reader.7.log"},
              {"reader", "reader.*.log", -1, "reader.7.log"},
              {"2026.log", "2026.*.log", 2026, "2026.7.log"},
              {"x.3", "x.*.3", -1, "x.7.3"},
              {".3", ".*.3", 3, ".7.3"},
              {"7", "7.*.log", 7, "7.7.log"},
              {"1.2\\3.log", "1.2\\3.*.log", 3, "1.2\\3.7.log"},
              {"1.2/3.log", "1.2/3.*.log", -1, "1.2/3.7.log"},
              {"a.2147483647.log", "a.*.log", INT_MAX, "a.7.log"},
              {"a.2147483648.log", "a.*.log", -1, "a.2147483648.7.log"}};

} // namespace

TEST(FileNumber, NamesAreCutBetweenTheLastDots)
{
    for (const auto& row : kNames)
    {
        EXPECT_EQ(row.mask, Mask(row.name)) << row.name;
        EXPECT_EQ(row.number, Number(row.name)) << row.name;
        EXPECT_EQ(row.seventh, Build(row.name, 7)) << row.name;
    }
    EXPECT_EQ("ZelvoReader.log", Mask("ZelvoReader.log", ""));
    EXPECT_EQ("a.log", Mask("a.3.log", ""));
}

TEST(FileSearch, OnlyTheStarHasAMeaning)
{
    const TemporaryFolder folder;
    for (const char* name : {"a.1.log", "a.log", "ab.1.logs", "a[1].log", "aXbXbc", "?"})
    {
        Fill(folder / name, 0);
    }
    using Names = std::set<std::string>;
    EXPECT_EQ((Names{"a.1.log", "a.log", "ab.1.logs", "a[1].log", "aXbXbc", "?"}), Search(folder / "*").m_names);
    EXPECT_EQ(Names{"a.1.log"}, Search(folder / "a.*.log").m_names);
    EXPECT_EQ((Names{"a.1.log", "a.log", "a[1].log"}), Search(folder / "a*.log").m_names);
    EXPECT_EQ(Names{"a[1].log"}, Search(folder / "a[1].log").m_names);
    EXPECT_EQ(Names{"aXbXbc"}, Search(folder / "a*b*bc*").m_names);
    EXPECT_EQ(Names{"?"}, Search(folder / "?").m_names);
    EXPECT_EQ(Names{}, Search(folder / "a.?.log").m_names);
    EXPECT_EQ(Names{}, Search(folder / "none/*").m_names);
}

TEST_F(FileSizeRotation, PutsEachLineWhereItBelongs)
{
    using Sizes = std::map<std::string, std::size_t>; // files by the text between "app." and "log"
    const struct
    {
        const char* what;
        Sizes present;
        unsigned int limit;
        std::vector<std::size_t> lines;
        Sizes left;
    } rows[] = {{"first file", {}, 1000, {100}, {{"1.", 100}}},
                {"just fits", {{"1.", 900}}, 1000, {99}, {{"1.", 999}}},
                {"reaches the limit", {{"1.", 900}}, 1000, {100}, {{"1.", 900}, {"2.", 100}}},
                {"limit 0", {}, 0, {100, 100}, {{"1.", 0}, {"2.", 100}, {"3.", 100}}},
                {"longer than the limit", {}, 200, {100, 500, 100}, {{"1.", 100}, {"2.", 500}, {"3.", 100}}},
                {"largest limit", {}, UINT_MAX, {100, 100}, {{"1.", 200}}},
                {"highest by value", {{"2.", 5}, {"10.", 5}, {"9.", 5}}, 1000, {100}, {{"2.", 5}, {"9.", 5}, {"10.", 105}}},
                {"no numbers", {{"old.", 5}, {".", 5}, {"", 5}}, 1000, {100}, {{"old.", 5}, {".", 5}, {"", 5}, {"1.", 100}}},
                {"leading zero", {{"03.", 5}}, 1000, {100}, {{"03.", 5}, {"3.", 100}}},
                {"too high",
                 {{"2147483647.", 5}, {"99999999999.", 5}},
                 1000,
                 {100},
                 {{"2147483647.", 5}, {"99999999999.", 5}, {"1.", 100}}},
                {"far past the limit", {{"1.", 5ull << 30}}, 2000000000, {100}, {{"1.", 5ull << 30}, {"2.", 100}}},
                {"the last number grows on",
                 {{"2147483646.", 950}},
                 1000,
                 {100, 950},
                 {{"2147483646.", 950}, {"2147483647.", 1050}}}};
    for (const auto& row : rows)
    {
        const std::string folder = row.what;
        for (const auto& [number, size] : row.present)
        {
            Fill(m_folder / (folder + "/app." + number + "log"), size);
        }
        std::filesystem::create_directories(m_folder / folder);
        SetOptions(LOGGING_STRATEGY_FILE_SIZE, row.limit);
        Start(folder + "/app.log");
        for (const std::size_t size : row.lines)
        {
            LogBytes(size);
        }
        ShutdownLogging();
        Sizes left;
        for (const auto& file : std::filesystem::directory_iterator(m_folder / folder))
        {
            const std::string name = file.path().filename();
            left[name.substr(4, name.size() - 7)] = file.file_size();
        }
        EXPECT_EQ(row.left, left) << row.what;
    }
}

TEST_F(FileSizeRotation, PassesByADirectoryWithANumberedName)
{
    std::filesystem::create_directory(m_folder / "app.3.log");
    SetOptions(LOGGING_STRATEGY_FILE_SIZE, 200);
    Log("one");
    EXPECT_EQ(m_folder / "app.4.log", GetLogFilename());
    const char* const name = GetLogFilename();
    ShutdownLogging();
    Log("two");
    EXPECT_EQ(static_cast<const void*>(name), GetLogFilename()); // an unchanged name stays where it is
    std::filesystem::create_directory(m_folder / "app.5.log");
    Log(std::string(100, 'x'));
    EXPECT_EQ(m_folder / "app.6.log", GetLogFilename());
}

TEST_F(FileSizeRotation, SearchesTenThousandFilesOnce)
{
    Fill(m_folder / "app.1.log", 0);
    for (int number = 2; number < 10000; ++number) // links cost much less than files
    {
        std::filesystem::create_hard_link(m_folder / "app.1.log", m_folder / ("app." + std::to_string(number) + ".log"));
    }
    Fill(m_folder / "app.10000.log", 0);
    SetOptions(LOGGING_STRATEGY_FILE_SIZE, 1000);
    Faults::gSearches = 0;
    for (int line = 0; line < 40; ++line)
    {
        LogBytes(100);
    }
    EXPECT_EQ(1, Faults::gSearches);
    EXPECT_EQ(m_folder / "app.10004.log", GetLogFilename());
    EXPECT_EQ(9u, ClosedTexts("app.10000.log").size());
}
