// Log.h as hosts use it, in C++ and, through LogHeader.c, in C.
#include "ErrorHandlerDll/HalvikException.h"
#include "ErrorHandlerDll/Log.h"
#include "support/LogTest.h"

#include <array>
#include <string>
#include <thread>
#include <vector>

extern "C"
{
    // LogHeader.c
    const char* HereInC(void);
    int LogTwiceInC(int argument);
    int LogOnceAndEveryThirdInC(int calls);
}

// What the name of a function may look like, each with ZR_HERE in it.
namespace Places
{

const char* const kAtNamespaceScope = ZR_HERE;

struct Class
{
    Class() : m_inConstructor(ZR_HERE) {}
    const char* operator()(int) const& noexcept { return ZR_HERE; }
    const char* operator<(int) { return ZR_HERE; }
    const char* operator->*(int) { return ZR_HERE; }
    operator std::vector<const char*>() const { return {ZR_HERE}; }

    const char* m_inConstructor;
    const char* m_inMember = ZR_HERE;
};

const char* gInDestructor;

struct Destroyed
{
    ~Destroyed() { gInDestructor = ZR_HERE; }
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

auto Trailing(const std::vector<int>& numbers) -> const char* (*)[2]
{
    static const char* gHere[2] = {ZR_HERE, numbers.empty() ? "empty" : ""};
    return &gHere;
}

namespace
{
const char* InLambdas()
{
    auto outer = [](auto value) mutable
    {
        return [&value]
        {
            return value > 0 ? ZR_HERE : nullptr;
        }();
    };
    return outer(1);
}

const char* AsDefault(const char* here = ZR_HERE)
{
    return here;
}
} // namespace

} // namespace Places

namespace
{

// "Unit(42) : Function() - " without the number.
std::string Shape(const char* here)
{
    return std::regex_replace(here, std::regex(R"(\(\d+\))"), "(N)");
}

TEST(Here, NamesUnitAndFunction)
{
    Places::Class object;
    const std::vector<const char*> fromConversion = object;
    {
        const Places::Destroyed destroyed;
    }
    struct Local
    {
        const char* operator()() const { return ZR_HERE; }
    };
    const struct
    {
        const char* here;
        const char* function;
    } kRows[] = {
        {ZR_HERE, "TestBody"},
        {Places::kAtNamespaceScope, "Places"},
        {object.m_inConstructor, "Class"},
        {object.m_inMember, "Class"},
        {object(1), "operator()"},
        {object < 1, "operator<"},
        {object->*1, "operator->*"},
        {Places::gInDestructor, "~Destroyed"},
        {Places::Template<'('>::Run(1, std::string()), "Run"},
        {Places::Template<'>'>::Run([] {}), "Run"},
        {(*Places::Trailing({}))[0], "Trailing"},
        {Places::InLambdas(), "InLambdas"},
        {Local()(), "operator()"},
        {[](int) noexcept
         {
             return ZR_HERE;
         }(1),
         "TestBody"},
    };
    for (const auto& row : kRows)
    {
        EXPECT_EQ(Shape(row.here), "LogHeaderTest(N) : " + std::string(row.function) + "() - ");
    }
    EXPECT_EQ(Shape(fromConversion[0]).substr(0, 28), "LogHeaderTest(N) : operator ");
    EXPECT_EQ(Shape(Places::AsDefault()).substr(0, 19), "LogHeaderTest(N) : ");
    EXPECT_EQ(Shape(HereInC()), "LogHeader(N) : HereInC() - ");
    EXPECT_EQ(HereInC(), HereInC());
}

TEST(Here, IsAConstant)
{
    constexpr const char* kHere = ZR_HERE;
    static_assert(kHere[0] == 'L');
    EXPECT_EQ("LogHeaderTest(" + std::to_string(__LINE__ - 2) + ") : TestBody() - ", kHere);
}

TEST(Here, TakesTheUnitFromAnyPath)
{
    using ErrorHandlerDllDetail::UnitOfFile;
    static_assert(UnitOfFile("/a.b/c/Scanner.cpp") == "Scanner");
    static_assert(UnitOfFile("Scanner.tab.c") == "Scanner.tab");
    static_assert(UnitOfFile("a.b/Scanner") == "Scanner");
    static_assert(UnitOfFile("a/.scanner") == ".scanner");
    static_assert(UnitOfFile("a/").empty());
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // a checked format may not hold "%m"
bool LogV(int level, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const bool first = LogFormattedV(level, 1, "V - ", format, arguments);
    const bool again = LogFormattedV(level, 1, "V - ", format, arguments); // the list is as it was
    va_end(arguments);
    return first && again;
}
#pragma GCC diagnostic pop

TEST(LogHeader, WritesLists)
{
    const CapturedLog log(ZR_LOG_WARNING);
    const std::string longest(70000, 'x');
    std::vector<std::string> expected;
    for (const std::size_t length : {0U, 1023U, 1024U, 70000U})
    {
        errno = ENOENT;
        EXPECT_TRUE(LogV(ZR_LOG_ERROR, "%.*s|%m", static_cast<int>(length), longest.c_str()));
        EXPECT_EQ(errno, ENOENT);
        expected.insert(expected.end(), 2, "ERROR|V - " + longest.substr(0, length) + "|No such file or directory");
    }
    EXPECT_TRUE(LogV(ZR_LOG_DEBUG_LOW, "%s", reinterpret_cast<const char*>(8))); // filtered out, so not formatted
    EXPECT_TRUE(LogV(ZR_LOG_ERROR, nullptr));
    expected.insert(expected.end(), 2, "ERROR|V - ");
    EXPECT_EQ(log.GetLines(), expected);
}

int Count(int& calls)
{
    return ++calls;
}

TEST(LogHeader, MacrosEvaluateOnceAndAreExpressions)
{
    const CapturedLog log;
    int levels = 0;
    int masks = 0;
    int arguments = 0;
    if (levels == 0)
        EXPECT_TRUE(ZR_LOG(Count(levels), static_cast<unsigned>(Count(masks)), "%d", Count(arguments)));
    else
        ZR_LOG(ZR_LOG_ERROR, 1, "not this one");
    EXPECT_EQ(levels, 1);
    EXPECT_EQ(masks, 1);
    EXPECT_EQ(arguments, 1);
    EXPECT_TRUE(ZR_LOG(ZR_LOG_DEBUG_HIGH + 1, 1, "filtered out at run time: %d", Count(arguments)));
    EXPECT_EQ(arguments, 2);
    EXPECT_EQ(LogTwiceInC(7), 1);
    const auto lines = log.GetLines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(Shape(lines[0].c_str()), "WARNING|LogHeaderTest(N) : TestBody() - 1");
    EXPECT_EQ(Shape(lines[1].c_str()), "ERROR|LogHeader(N) : LogTwiceInC() - plain");
    EXPECT_EQ(Shape(lines[2].c_str()), "ERROR|LogHeader(N) : LogTwiceInC() - 7");
}

template <class Call>
void RunInThreads(const Call& call)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
    {
        threads.emplace_back(
            [&call]
            {
                for (int n = 0; n < 75; ++n)
                {
                    call();
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
}

TEST(LogHeader, CountsOverAllThreads)
{
    const CapturedLog log;
    RunInThreads([] { ZR_LOG_ONCE(ZR_LOG_ERROR, 1, "once"); });
    RunInThreads([] { ZR_LOG_EVERY_N(100, ZR_LOG_ERROR, 1, "every %d", 100); });
    RunInThreads([] { LogOnceAndEveryThirdInC(1); });
    ZR_LOG_EVERY_N(0, ZR_LOG_ERROR, 1, "every");
    EXPECT_EQ(log.GetLines().size(), 1U + 3U + 1U + 100U + 1U);
}

TEST(LogHeader, LogsTextsAndMemoryOfAnyKind)
{
    const CapturedLog log;
    const std::string text = "cut here, not there";
    const std::vector<std::uint16_t> words = {0x4241, 0x4443};
    Log(ZR_LOG_ERROR, 1, "S - ", {text.data(), 8});
    Log(ZR_LOG_ERROR, 1, "S - ", text);
    Log(ZR_LOG_ERROR, 1, "S - ", "100 %s");
    Log(ZR_LOG_ERROR, 1, "S - ", std::string_view());
    LogHex(ZR_LOG_ERROR, 1, "", "", words);
    LogHex(ZR_LOG_ERROR, 1, "", "", std::array<char, 2>{'A', 'B'});
    LogHex(ZR_LOG_ERROR, 1, "", "", words.data(), 3);
    LogHex(ZR_LOG_ERROR, 1, "", "", "AB");
    LogHex(ZR_LOG_ERROR, 1, "", "", std::vector<int>());
    ShutdownLogging();
    std::string dumps;
    std::istringstream file(ReadFile(GetLogFilename()));
    for (std::string line; std::getline(file, line);)
    {
        const std::size_t prefix = line.find("] - ");
        dumps += (prefix == std::string::npos ? line.substr(0, 12) : line.substr(prefix + 4)) + "\n";
    }
    EXPECT_EQ(dumps, "S - cut here\nS - cut here, not there\nS - 100 %s\nS - \n"
                     "\n41 42 43 44 \n\n41 42       \n\n41 42 43    \n\n41 42 00    \n\n\n");
}

void Traced(int depth)
{
    ZR_TRACE_SCOPE();
    if (depth > 0)
    {
        ZR_TRACE_SCOPE();
        try
        {
            Traced(depth - 1);
        }
        catch (const int&)
        {
        }
        return;
    }
    throw 1;
}

TEST(LogHeader, TracesScopes)
{
    const CapturedLog log(5, 0x20);
    Traced(1);
    std::string trace;
    for (const std::string& line : log.GetLines())
    {
        const std::string shape = Shape(line.c_str());
        const std::string head = "Level 5|LogHeaderTest(N) : Traced() - [";
        EXPECT_EQ(shape.substr(0, head.size()), head);
        trace += shape[head.size() + 1];
    }
    EXPECT_EQ(trace, "nnnxx"); // three times Entering; the innermost is left by the exception
}

} // namespace
