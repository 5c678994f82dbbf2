// Texts, formatted ones and hex dumps of any length: the entry is what snprintf and a plain dump give.
#include "FuzzLog.h"

namespace
{

constexpr const char* kMark = "|>"; // a source, behind which the text of the entry begins

template <class Log>
void Expect(const std::string& expected, const Log& log)
{
    static const TemporaryFolder folder("/dev/shm");
    const std::string entry = ReadFile(LogInto(folder / "fuzz.log", LOGGING_STRATEGY_OVERWRITE, 0, log));
    FuzzCheck(entry.substr(std::min(entry.find(kMark), entry.size())) == kMark + expected + "\n", "the entry as expected");
}

std::string PlainDump(const std::vector<unsigned char>& bytes)
{
    constexpr std::size_t kRow = 16;
    std::string text = bytes.empty() ? "\n" : "";
    for (std::size_t i = 0; i < bytes.size(); ++i)
    {
        const std::size_t column = i % kRow;
        if (column == 0)
        {
            text += "\n" + std::string(3 * kRow, ' ') + ": ";
        }
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02X", bytes[i]);
        text.replace(text.rfind('\n') + 1 + 3 * column, 2, digits);
        text += bytes[i] >= 0x20 && bytes[i] <= 0x7E && bytes[i] != '%' ? static_cast<char>(bytes[i]) : '.';
    }
    return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* input, std::size_t size)
{
    FuzzedDataProvider data(input, size);
    const std::string text = FuzzText(data, 2000);
    const int width = data.ConsumeIntegralInRange(-70000, 70000);
    const int precision = data.ConsumeIntegralInRange(-1, 2000);
    const int level = data.ConsumeIntegralInRange(-5, 3);
    const std::vector<unsigned char> bytes = data.ConsumeRemainingBytes<unsigned char>();

    const char* const format = "%*d%% %.*s%s";
    std::string expected(80000, '?');
    const int length =
        std::snprintf(expected.data(), expected.size(), format, width, level, precision, text.c_str(), text.c_str());
    expected.resize(static_cast<std::size_t>(length));
    Expect(expected, [&] { return LogFormatted(0, 1, kMark, format, width, level, precision, text.c_str(), text.c_str()); });
    Expect(text + PlainDump(bytes), [&]
           { return LogMessageAndBufferAsHex(0, 1, kMark, text.c_str(), bytes.data(), static_cast<int>(bytes.size())); });
    return 0;
}
