// Hex dumps against a plain one.
#include "FuzzLog.h"

#include <algorithm>
#include <fuzzer/FuzzedDataProvider.h>
#include <vector>

namespace
{

constexpr std::size_t kRow = 16;

std::string PlainDump(const std::string& message, const std::vector<unsigned char>& buffer)
{
    std::string text = message + "\n";
    for (std::size_t row = 0; row < buffer.size(); row += kRow)
    {
        text += row > 0 ? "\n" : "";
        std::string hex;
        std::string characters;
        for (std::size_t i = row; i < std::min(row + kRow, buffer.size()); ++i)
        {
            char digits[4];
            std::snprintf(digits, sizeof digits, "%02X ", buffer[i]);
            hex += digits;
            characters += buffer[i] >= 0x20 && buffer[i] <= 0x7E && buffer[i] != '%' ? static_cast<char>(buffer[i]) : '.';
        }
        hex.pop_back();
        hex.resize(3 * kRow - 1, ' ');
        text += hex + " : " + characters;
    }
    return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size)
{
    static const FuzzFolder folder;
    FuzzedDataProvider data(bytes, size);
    std::string message = data.ConsumeRandomLengthString(100);
    std::replace(message.begin(), message.end(), '\0', '0');
    const int lessOrNothing = data.ConsumeIntegralInRange(-3, 3);
    const std::vector<unsigned char> buffer = data.ConsumeRemainingBytes<unsigned char>();

    StartEntry(folder);
    FUZZ_CHECK(LogMessageAndBufferAsHex(0, 1, kMark, message.c_str(), buffer.data(), static_cast<int>(buffer.size())));
    FUZZ_CHECK(ReadEntry(folder) == PlainDump(message, buffer));

    StartEntry(folder);
    FUZZ_CHECK(LogMessageAndBufferAsHex(0, 1, kMark, message.c_str(), nullptr, lessOrNothing));
    FUZZ_CHECK(ReadEntry(folder) == message + "\n");
    return 0;
}
