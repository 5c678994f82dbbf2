// Formats with flags, widths, precisions and literal text around three arguments: the entry is what snprintf gives.
#include "FuzzLog.h"

#include <algorithm>
#include <fuzzer/FuzzedDataProvider.h>
#include <vector>

namespace
{

constexpr int kLargestWidth = 5000;
constexpr int kMostConversions = 8;

// Arguments by position, so that any number of conversions in any order fits: 1 a long long, 2 a text, 3 a double.
std::string Conversion(FuzzedDataProvider& data)
{
    static const std::vector<std::string> kKinds[] = {{"lld", "llx", "llo", "llu"}, {"s"}, {"f", "g", "e", "a"}};
    const int argument = data.ConsumeIntegralInRange(1, 3);
    std::string text = "%" + std::to_string(argument) + "$";
    text += data.PickValueInArray({"", "-", "0", "+", " ", "#"});
    if (argument == 2)
    {
        text = "%2$";
        text += data.PickValueInArray({"", "-"});
    }
    if (data.ConsumeBool())
    {
        text += std::to_string(data.ConsumeIntegralInRange(1, kLargestWidth));
    }
    if (data.ConsumeBool())
    {
        text += "." + std::to_string(data.ConsumeIntegralInRange(0, kLargestWidth));
    }
    const std::vector<std::string>& kinds = kKinds[argument - 1];
    return text + kinds[data.ConsumeIntegralInRange<std::size_t>(0, kinds.size() - 1)];
}

std::string Literal(FuzzedDataProvider& data)
{
    std::string text = data.ConsumeRandomLengthString(300);
    std::replace(text.begin(), text.end(), '\0', '0');
    std::replace(text.begin(), text.end(), '%', '&');
    return data.ConsumeBool() ? text + "%%" : text;
}

} // namespace

#pragma GCC diagnostic ignored "-Wformat-nonliteral" // made here to fit

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size)
{
    static const FuzzFolder folder;
    FuzzedDataProvider data(bytes, size);
    const long long number = data.ConsumeIntegral<long long>();
    const double real = data.ConsumeFloatingPoint<double>();
    std::string text = data.ConsumeRandomLengthString(2000);
    std::replace(text.begin(), text.end(), '\0', '0');

    std::string format = "%1$lld%2$s%3$g"; // each position once: gaps have no type
    for (int i = data.ConsumeIntegralInRange(0, kMostConversions); i > 0; --i)
    {
        format += Literal(data) + Conversion(data);
    }
    const int length = std::snprintf(nullptr, 0, format.c_str(), number, text.c_str(), real);
    std::string expected;
    if (length > 0)
    {
        expected.resize(static_cast<std::size_t>(length) + 1);
        std::snprintf(expected.data(), expected.size(), format.c_str(), number, text.c_str(), real);
        expected.pop_back();
    }
    StartEntry(folder);
    FUZZ_CHECK(LogFormatted(0, 1, kMark, format.c_str(), number, text.c_str(), real));
    FUZZ_CHECK(ReadEntry(folder) == expected);

    StartEntry(folder);
    FUZZ_CHECK(LogMessage(data.ConsumeIntegralInRange(-5, 3), 1, kMark, text.c_str()));
    FUZZ_CHECK(ReadEntry(folder) == text);
    return 0;
}
