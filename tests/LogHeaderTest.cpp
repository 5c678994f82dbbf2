// Log.h as hosts use it, in C++ and, through LogHeader.c, in C.
#include "ErrorHandlerDll/Log.h"
#include "support/LogTest.h"

#include <array>
#include <functional>
#include <thread>

extern "C" int LogInC(int call); // LogHeader.c

using ErrorHandlerDllDetail::UnitOfFile;
static_assert(UnitOfFile("/a.b/c/Scanner.cpp") == "Scanner");
static_assert(UnitOfFile("Scanner.tab.c") == "Scanner.tab");
static_assert(UnitOfFile("a.b/Scanner") == "Scanner");
static_assert(UnitOfFile("a/.scanner") == ".scanner");
static_assert(UnitOfFile("a/").empty());

// What the name of a function may look like, each with ZR_HERE in it.
namespace Places
{

const char* const kAtNamespaceScope = ZR_HERE;

struct Class
{
    const char* operator()(int) const& noexcept { return ZR_HERE; }
    const char* operator<(int) { return ZR_HERE; }
    explicit operator std::string() const { return ZR_HERE; }

    const char* m_inMember = ZR_HERE;
};

template <char bracket>
struct Template
{
    template <class... Types>
    static const char* Run(Types...)
    {
        return ZR_HERE;
    }
};

auto Trailing(const std::vector<int>&) -> const char* (*)[1]
{
    static const char* gHere[] = {ZR_HERE};
    return &gHere;
}

} // namespace Places

namespace
{

TEST(Here, NamesUnitAndFunction)
{
    Places::Class object;
    const std::pair<const char*, std::string> kFunctions[] = {
        {ZR_HERE, "TestBody"},
        {Places::kAtNamespaceScope, "Places"},
        {object.m_inMember, "Class"},
        {object(1), "operator()"},
        {object < 1, "operator<"},
        {Places::Template<'('>::Run(1, std::string()), "Run"},
        {Places::Template<'\''>::Run(), "Run"},
        {(*Places::Trailing({}))[0], "Trailing"},
        {std::invoke([](auto) { return std::invoke([] { return ZR_HERE; }); }, 1), "TestBody"},
    };
    for (const auto& [here, function] : kFunctions)
    {
        EXPECT_EQ(std::regex_replace(here, std::regex(R"(\(\d+\))"), "(N)"), "LogHeaderTest(N) : " + function + "() - ");
    }
    EXPECT_TRUE(std::string(object).find(") : operator ") < 30); // compilers write the type in ways of their own
    constexpr const char* kHere = ZR_HERE;
    EXPECT_EQ("LogHeaderTest(" + std::to_string(__LINE__ - 1) + ") : TestBody() - ", kHere);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // a checked format may not hold "%m"
bool LogV(int level, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const bool isWritten = LogFormattedV(level, 1, "V - ", format, arguments) &&
                           LogFormattedV(level, 1, "V - ", format, arguments); // the list is as it was
    va_end(arguments);
    return isWritten;
}
#pragma GCC diagnostic pop

TEST(LogHeader, WritesLists)
{
    const CapturedLog log(ZR_LOG_WARNING);
    const std::string longest(70000, 'x');
    const std::string error = "|No such file or directory";
    std::vector<std::string> expected;
    for (const std::size_t length : {1023 - error.size(), 1024 - error.size(), std::size_t{70000}})
    {
        errno = ENOENT;
        EXPECT_TRUE(LogV(ZR_LOG_ERROR, "%.*s|%m", static_cast<int>(length), longest.c_str()));
        EXPECT_EQ(errno, ENOENT);
        expected.insert(expected.end(), 2, "ERROR|V - " + longest.substr(0, length) + error);
    }
    EXPECT_TRUE(LogV(ZR_LOG_DEBUG_LOW, "%s", reinterpret_cast<const char*>(8))); // filtered out, so not formatted
    EXPECT_EQ(log.GetLines(), expected);
}

TEST(LogHeader, MacrosEvaluateOnceAndCountOverAllThreads)
{
    const CapturedLog log;
    int evaluated = 0;
    EXPECT_TRUE(ZR_LOG(++evaluated, 1, "%d", 1));
    EXPECT_TRUE(ZR_LOG(1, static_cast<unsigned int>(++evaluated), "%d", 2));
    EXPECT_TRUE(ZR_LOG(ZR_LOG_DEBUG_HIGH + 1, 1, "filtered out at run time: %d", ++evaluated));
    EXPECT_EQ(evaluated, 3);
    EXPECT_EQ(LogInC(7), 1);
    const std::string here = "WARNING|LogHeaderTest(N) : TestBody() - ";
    const std::string inC = "ERROR|LogHeader(N) : LogInC() - ";
    EXPECT_EQ(log.GetLines(),
              (std::vector<std::string>{here + "1", here + "2", inC + "once", inC + "every third", inC + "7"}));

    const auto logAll = []
    {
        for (int call = 0; call < 75; ++call)
        {
            ZR_LOG_ONCE(ZR_LOG_ERROR, 1, "once");
            ZR_LOG_EVERY_N(100, ZR_LOG_ERROR, 1, "every %d", 100);
            LogInC(call);
        }
    };
    const CapturedLog ofThreads;
    for (std::array<std::jthread, 4> threads; std::jthread & thread : threads)
    {
        thread = std::jthread(logAll);
    }
    ZR_LOG_EVERY_N(0, ZR_LOG_ERROR, 1, "every");
    EXPECT_EQ(ofThreads.GetLines().size(), 1U + 3U + 100U + 300U + 1U);
}

TEST(LogHeader, LogsTextsAndMemoryOfAnyKind)
{
    const CapturedLog log;
    const std::string text = "cut here, not there";
    const std::vector<std::uint16_t> words = {0x4241, 0x4443};
    Log(ZR_LOG_ERROR, 1, "S - ", {text.data(), 8});
    Log(ZR_LOG_ERROR, 1, "S - ", "100 %s");
    Log(ZR_LOG_ERROR, 1, "S - ", std::string_view());
    LogHex(ZR_LOG_ERROR, 1, "", "", words);
    LogHex(ZR_LOG_ERROR, 1, "", "", words.data(), 3);
    LogHex(ZR_LOG_ERROR, 1, "", "", "AB");
    LogHex(ZR_LOG_ERROR, 1, "", "", std::array<int, 0>());
    ShutdownLogging();
    const std::string file = std::regex_replace(ReadFile(GetLogFilename()), std::regex(".*\\] - | +: .*"), "");
    EXPECT_EQ(file, "S - cut here\nS - 100 %s\nS - \n"
                    "\n41 42 43 44\n\n41 42 43\n\n41 42 00\n\n\n");
}

void Traced(int depth)
{
    ZR_TRACE_SCOPE();
    if (depth == 0)
    {
        throw 1;
    }
    ZR_TRACE_SCOPE();
    EXPECT_THROW(Traced(depth - 1), int);
}

TEST(LogHeader, TracesScopes)
{
    const CapturedLog log(5, 0x20);
    Traced(1);
    const std::string entering = "Level 5|LogHeaderTest(N) : Traced() - [Entering]";
    const std::string exiting = "Level 5|LogHeaderTest(N) : Traced() - [Exiting]";
    // The innermost is left by the exception.
    EXPECT_EQ(log.GetLines(), (std::vector{entering, entering, entering, exiting, exiting}));
}

} // namespace
