#include "QV/BaseString.h"

#include "ErrorHandlerDll/FormattedText.h"
#include "ZelvoWinAPI/ZelvoWinAPI.h"
#include "support/Allocations.h"

#include <climits>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using String = QV::BaseString<char>;

namespace
{

void ExpectText(const String& string, const std::string& expected)
{
    EXPECT_EQ(expected, std::string(string.GetData(), static_cast<std::size_t>(string.GetLength())));
    EXPECT_EQ('\0', string.GetData()[string.GetLength()]);
}

} // namespace

TEST(BaseString, OwnsExactlyItsTextAndItsNul)
{
    for (const char* text : {static_cast<const char*>(nullptr), "", "a", "some text"})
    {
        const std::string expected = text == nullptr ? "" : text;
        const String string(text);
        EXPECT_EQ(expected.size() + 1, Allocations::tLastSize);
        ExpectText(string, expected);
    }
}

TEST(BaseString, CopiesAreIndependent)
{
    String first("one");
    String second(first);
    second.Append("");
    second.Append("+");
    first = *&first;
    ExpectText(first, "one");
    first = second;
    second = String();
    ExpectText(first, "one+");
    ExpectText(second, "");
}

TEST(BaseString, IsUnchangedWhenMemoryRunsOut)
{
    const String other("other");
    String string("text");
    Allocations::tFailAfter = 0;
    EXPECT_THROW(string.Append("more"), std::bad_alloc);
    Allocations::tFailAfter = 0;
    EXPECT_THROW(string = other, std::bad_alloc);
    ExpectText(string, "text");
}

TEST(FormattedText, IsWholeOrEmpty)
{
    const auto expect = [](const std::string& expected, const char* format, auto... arguments)
    {
        FormattedText text;
        text.Format(format, arguments...);
        EXPECT_EQ(expected, text.GetText());
        EXPECT_EQ(expected, text.GetData());
        String (*const formatString)(const char*, ...) = String::Format;
        ExpectText(formatString(format, arguments...), expected);
    };
    const wchar_t noCharacter[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
    expect("-3-x- 2.50", "%d-%s-%5.2f", -3, "x", 2.5);
    expect("", "%s", "");
    expect("", "before %ls", noCharacter);
    expect("", "%2000d before %ls", 1, noCharacter);
    for (const int length : {1022, 1023, 1024, 1025, 100000})
    {
        expect(std::string(static_cast<std::size_t>(length - 1), ' ') + "7", "%*d", length, 7);
    }
}

// Between the two passes another thread may shorten an argument; here the first pass does, with what it counts.
TEST(FormattedText, ShowsNothingBehindAnArgumentThatBecameShorter)
{
    std::vector<char> argument(2000, 'x');
    argument.push_back('\0');
    FormattedText text;
    text.Format("%s%n", argument.data(), reinterpret_cast<int*>(&argument[1500])); // 2000 as an int: two bytes are zero
    EXPECT_EQ(1502u, text.GetText().size());
    EXPECT_EQ(std::string(1500, 'x'), text.GetText().substr(0, 1500));
    argument.assign(2000, 'x');
    argument.push_back('\0');
    EXPECT_EQ(1502, String::Format("%s%n", argument.data(), reinterpret_cast<int*>(&argument[1500])).GetLength());
}

TEST(Itoa, WritesDecimals)
{
    for (const int value : {0, -1, INT_MIN, INT_MAX})
    {
        char buffer[12];
        EXPECT_EQ(std::to_string(value), ZelvoWinAPI::itoa(value, buffer, 10));
    }
}
