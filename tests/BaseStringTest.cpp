#include "QV/BaseString.h"

#include "ZelvoWinAPI/ZelvoWinAPI.h"
#include "support/Allocations.h"

#include <climits>
#include <gtest/gtest.h>
#include <string>

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

TEST(BaseString, GrowsByExactlyWhatIsAppended)
{
    String string("abc");
    const char* const before = string.GetData();
    const long count = Allocations::tCount;
    string.Append("");
    string.Append(static_cast<const char*>(nullptr));
    string.Append(String());
    EXPECT_EQ(before, string.GetData());
    EXPECT_EQ(count + 1, Allocations::tCount); // that of String() itself

    string.Append("de");
    EXPECT_EQ(6u, Allocations::tLastSize);
    ExpectText(string, "abcde");
    string.Append(string);
    ExpectText(string, "abcdeabcde");
}

TEST(BaseString, CopiesAreIndependent)
{
    String first("one");
    String second(first);
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

TEST(BaseString, Formats)
{
    const wchar_t noCharacter[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
    const std::string empty;
    ExpectText(String::Format("%d-%s-%5.2f", -3, "x", 2.5), "-3-x- 2.50");
    ExpectText(String::Format("%s", empty.c_str()), "");
    ExpectText(String::Format("before %ls", noCharacter), "");
    for (const int length : {1022, 1023, 1024, 1025, 100000})
    {
        ExpectText(String::Format("%*d", length, 7), std::string(static_cast<std::size_t>(length - 1), ' ') + "7");
    }
}

TEST(Itoa, WritesEveryRadix)
{
    const struct
    {
        int value, radix;
        const char* text;
    } rows[] = {{0, 10, "0"},
                {INT_MIN, 10, "-2147483648"},
                {INT_MAX, 10, "2147483647"},
                {-1, 16, "ffffffff"},
                {INT_MIN, 2, "10000000000000000000000000000000"},
                {35, 36, "z"},
                {5, 1, ""},
                {5, 37, ""}};
    for (const auto& row : rows)
    {
        char buffer[34];
        EXPECT_STREQ(row.text, ZelvoWinAPI::itoa(row.value, buffer, row.radix)) << row.value << " in radix " << row.radix;
    }
}
