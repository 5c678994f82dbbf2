// Texts of error and warning codes: ranges, sizes, registrations.
#include "ErrorHandlerDll/ErrorHandlerDll.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/mman.h>
#include <tuple>
#include <unistd.h>

namespace
{

constexpr ZelvoReaderErrorCode Code(unsigned int value)
{
    return static_cast<ZelvoReaderErrorCode>(value);
}

// Looked up as hosts do, after the size that it needs. A size that is too small lets nothing be written.
std::string TextOf(ZelvoReaderErrorCode code)
{
    std::string buffer(100, '#');
    int length = -1;
    EXPECT_EQ(ZR_ERROR_STRING_BUFFER_TOO_SMALL, GetErrorString(code, buffer.data(), &length));
    const int needed = length--;
    EXPECT_EQ(ZR_ERROR_STRING_BUFFER_TOO_SMALL, GetErrorString(code, buffer.data(), &length));
    EXPECT_EQ(std::string(100, '#'), buffer);
    EXPECT_EQ(ZR_ERROR_NONE, GetErrorString(code, buffer.data(), &length));
    EXPECT_EQ(needed, length);
    const std::string text = buffer.c_str();
    EXPECT_EQ(text + '\0' + std::string(99 - text.size(), '#'), buffer);
    EXPECT_EQ(std::ssize(text) + 1, needed);
    return text;
}

struct ErrorRegistry : testing::Test
{
    ~ErrorRegistry() override { ResetErrorMessages(); }
};

} // namespace

TEST_F(ErrorRegistry, EachRangeHasItsTextAndItsRegistration)
{
    const std::tuple<unsigned int, const char*, bool, bool> rows[] = {
        {0, "No error occurred", true, false},
        {195, "Unknown error code %d", true, false},
        {196, "Invalid error code", false, false},
        {0xFFFF, "Invalid error code", false, false},
        {0x10000, "Undefined custom error code", false, true},
        {0x1FFFF, "Undefined custom error code", false, true},
        {0x20000, "Invalid error code", false, false},
        {0xC0000000, "Invalid error code", false, false},
        {0xC0000001, " (c0000001) occurred at %08X", false, false},
        {0xFFFFFFFF, " (ffffffff) occurred at %08X", false, false},
    };
    for (const auto& [number, text, canBeSet, canBeAdded] : rows)
    {
        const ZelvoReaderErrorCode code = Code(number);
        EXPECT_EQ(text, TextOf(code));
        EXPECT_EQ(canBeSet, SetErrorMessage(code, "set")) << number;
        EXPECT_EQ(canBeAdded, AddCustomErrorMessage(code, "added")) << number;
        EXPECT_FALSE(SetErrorMessage(code, nullptr) || AddCustomErrorMessage(code, nullptr));
        EXPECT_EQ(canBeSet ? "set" : canBeAdded ? "added" : text, TextOf(code));
    }
    EXPECT_TRUE(ResetErrorMessages());
    EXPECT_EQ("No error occurred", TextOf(ZR_ERROR_NONE));
    char text[] = "first";
    EXPECT_TRUE(AddCustomErrorMessage(Code(0x10000), text));
    std::strcpy(text, "then"); // the pointer is kept, not the text
    EXPECT_EQ("then", TextOf(Code(0x10000)));
    EXPECT_EQ("added", TextOf(Code(0x1FFFF)));

    char warning[sizeof "Invalid warning code"];
    int length = sizeof warning;
    EXPECT_EQ(ZR_ERROR_NONE, GetWarningString(2, warning, &length)); // the first that is none
    EXPECT_STREQ("Invalid warning code", warning);
}

// Its size with the NUL must be an int: a needed size that wraps would let a small buffer pass. A small file, mapped over
// and over, gives the text.
TEST_F(ErrorRegistry, RefusesATextWhoseSizeIsNoInt)
{
    constexpr std::size_t kTile = std::size_t{4} << 20;
    constexpr std::size_t kLength = std::size_t{1} << 31;
    const int file = memfd_create("text", 0);
    ASSERT_EQ(0, ftruncate(file, kTile));
    char* const text =
        static_cast<char*>(mmap(nullptr, kLength + kTile, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    ASSERT_NE(MAP_FAILED, text);
    for (std::size_t offset = 0; offset < kLength; offset += kTile)
    {
        mmap(text + offset, kTile, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, file, 0);
    }
    close(file);
    std::memset(text, 'x', kTile);
    EXPECT_FALSE(SetErrorMessage(ZR_ERROR_ALREADY_INITIALISED, text + 1)); // 2^31 - 1 characters
    EXPECT_TRUE(SetErrorMessage(ZR_ERROR_ALREADY_INITIALISED, text + 2));
    munmap(text, kLength + kTile); // no lookup comes before the reset
}
