// ZR_LOGF of Log.h.
#include "AdapterTest.h"
#include <ErrorHandlerDll/Log.h>

namespace
{

struct Counted
{
    int value;
};

int gFormatted;

} // namespace

template <>
struct fmt::formatter<Counted> : fmt::formatter<int>
{
    template <class Context>
    auto format(const Counted& counted, Context& context) const
    {
        ++gFormatted;
        return fmt::formatter<int>::format(counted.value, context);
    }
};

int main()
{
    OpenLog(ZR_LOG_WARNING);
    std::vector<std::string> expected;
    for (const std::size_t length : {0U, 1010U, 1023U, 1024U, 70000U})
    {
        const std::string text(length, 'x');
        Check(ZR_LOGF(ZR_LOG_WARNING, 1, "{}", text), "result");
        expected.push_back("WARNING|FormatTest(" + std::to_string(__LINE__ - 1) + ") : main() - " + text);
    }
    ZR_LOGF(ZR_LOG_ERROR, 1, "100 % {:>3} of {:#x}", 3, 255);
    expected.push_back("ERROR|FormatTest(" + std::to_string(__LINE__ - 1) + ") : main() - 100 %   3 of 0xff");
    ZR_LOGF(ZR_LOG_ERROR, 1, "plain");
    expected.push_back("ERROR|FormatTest(" + std::to_string(__LINE__ - 1) + ") : main() - plain");
    ZR_LOGF(ZR_LOG_DEBUG_LOW, 1, "{}", Counted{1});
    Check(gFormatted == 0, "what is filtered out is not formatted");
    CheckLines("ZR_LOGF", expected);
    CheckThreads([](int thread, int number) { ZR_LOGF(ZR_LOG_WARNING, 1, "thread {} line {}", thread, number); });
    return Result("std::format");
}
