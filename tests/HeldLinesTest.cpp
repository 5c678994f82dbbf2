#include "ErrorHandlerDll/logging/HeldLines.h"

#include <algorithm>
#include <csetjmp>
#include <cstddef>
#include <gtest/gtest.h>
#include <iterator>
#include <string>

namespace
{

bool Append(HeldLines& lines, std::string_view text)
{
    const std::string_view parts[] = {text.substr(0, 1), text.substr(1)};
    return lines.Append(parts);
}

std::string TakeAll(HeldLines& lines)
{
    std::string taken;
    lines.Take(
        [&](std::string_view text)
        {
            taken += text.substr(0, 3); // as a pipe that takes little at a time
            return std::min<std::ptrdiff_t>(3, std::ssize(text));
        });
    return taken;
}

TEST(HeldLines, TakesWholeLinesUntilTheyAreFull)
{
    HeldLines lines;
    const std::string half(HeldLines::kSize / 2, 'a');
    EXPECT_FALSE(Append(lines, std::string(HeldLines::kSize + 1, 'b')));
    EXPECT_TRUE(Append(lines, half));
    EXPECT_FALSE(Append(lines, half + 'c'));
    EXPECT_TRUE(Append(lines, half));
    EXPECT_FALSE(Append(lines, "d"));
    EXPECT_EQ(TakeAll(lines), half + half);
    EXPECT_EQ(TakeAll(lines), "");
}

// What a signal handler finds that interrupts the writing, and what is left of it after a fault that never returned there.
TEST(HeldLines, RefusesWhileInUseUntilRecovered)
{
    static HeldLines lines; // not automatic: the jump would leave it undefined
    static std::jmp_buf place;
    ASSERT_TRUE(Append(lines, "first\n"));
    if (setjmp(place) == 0)
    {
        lines.Take(
            [](std::string_view text)
            {
                if (text[0] != 'f')
                {
                    std::longjmp(place, 1);
                }
                return std::ptrdiff_t{2};
            });
    }
    EXPECT_FALSE(Append(lines, "second\n"));
    EXPECT_EQ(TakeAll(lines), "");
    lines.Recover();
    EXPECT_TRUE(Append(lines, "third\n"));
    EXPECT_EQ(TakeAll(lines), "rst\nthird\n");
}

} // namespace
