// Texts of error and warning codes: ranges, sizes, registrations.
#include "ErrorHandlerDll/ErrorHandlerDll.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace
{

constexpr ZelvoReaderErrorCode Code(unsigned int value)
{
    return static_cast<ZelvoReaderErrorCode>(value);
}

std::string TextOf(unsigned int code)
{
    char buffer[200];
    int length = sizeof buffer;
    EXPECT_EQ(ZR_ERROR_NONE, GetErrorString(Code(code), buffer, &length));
    return buffer;
}

struct ErrorRegistry : testing::Test
{
    ~ErrorRegistry() override { ResetErrorMessages(); }
};

} // namespace

TEST_F(ErrorRegistry, EachRangeHasItsTextAndItsSize)
{
    const struct
    {
        unsigned int code;
        const char* text;
        bool isWarning = false;
    } rows[] = {
        {0, "No error occurred"},
        {195, "Unknown error code %d"},
        {196, "Invalid error code"},
        {0x10000, "Undefined custom error code"},
        {0x1FFFF, "Undefined custom error code"},
        {0x20000, "Invalid error code"},
        {0xC0000000, "Invalid error code"},
        {0xC0000001, " (c0000001) occurred at %08X"},
        {0xFFFFFFFF, " (ffffffff) occurred at %08X"},
        {0, "An unknown warning occured - %s", true},
        {1, "Ossel arm timeout failure - %d", true},
        {2, "Invalid warning code", true},
    };
    for (const auto& row : rows)
    {
        const int needed = static_cast<int>(std::strlen(row.text)) + 1;
        for (const int size : {-1, needed - 1, needed})
        {
            SCOPED_TRACE(std::to_string(row.code) + ", " + std::to_string(size));
            std::string buffer(100, '#');
            int length = size;
            const auto result = row.isWarning ? GetWarningString(row.code, buffer.data(), &length)
                                              : GetErrorString(Code(row.code), buffer.data(), &length);
            EXPECT_EQ(size == needed ? ZR_ERROR_NONE : ZR_ERROR_STRING_BUFFER_TOO_SMALL, result);
            EXPECT_EQ(needed, length);
            const std::string copied(row.text, size == needed ? std::strlen(row.text) + 1 : 0);
            EXPECT_EQ(copied + std::string(100 - copied.size(), '#'), buffer);
        }
    }
}

TEST_F(ErrorRegistry, RegistrationsAreRefusedOutsideTheirRangeAndWithoutText)
{
    const struct
    {
        bool (*add)(ZelvoReaderErrorCode, const char*);
        unsigned int code;
        const char* text;
        bool accepted;
    } rows[] = {
        {SetErrorMessage, 0, "X", true},
        {SetErrorMessage, 195, "X", true},
        {SetErrorMessage, 196, "X", false},
        {SetErrorMessage, 0xFFFFFFFF, "X", false},
        {SetErrorMessage, 5, nullptr, false},
        {AddCustomErrorMessage, 0xFFFF, "X", false},
        {AddCustomErrorMessage, 0x10001, "X", true},
        {AddCustomErrorMessage, 0x10001, "replaced", true},
        {AddCustomErrorMessage, 0x1FFFF, "X", true},
        {AddCustomErrorMessage, 0x20000, "X", false},
        {AddCustomErrorMessage, 0x10002, nullptr, false},
    };
    for (const auto& row : rows)
    {
        const std::string before = TextOf(row.code);
        EXPECT_EQ(row.accepted, row.add(Code(row.code), row.text)) << row.code;
        EXPECT_EQ(row.accepted ? row.text : before, TextOf(row.code));
    }
    EXPECT_TRUE(ResetErrorMessages());
    EXPECT_EQ("No error occurred", TextOf(0));
    EXPECT_EQ("replaced", TextOf(0x10001));
    char text[] = "first";
    EXPECT_TRUE(SetErrorMessage(ZR_ERROR_ALREADY_INITIALISED, text));
    std::strcpy(text, "then"); // the pointer is kept, not the text
    EXPECT_EQ("then", TextOf(ZR_ERROR_ALREADY_INITIALISED));
}

// Its size with the NUL must be an int: a needed size that wraps would let a small buffer pass. A small file, mapped over
// and over, gives the text.
TEST_F(ErrorRegistry, RefusesATextWhoseSizeIsNoInt)
{
    constexpr std::size_t kTile = std::size_t{4} << 20;
    constexpr std::size_t kLength = std::size_t{1} << 31;
    const int file = memfd_create("text", 0);
    ASSERT_EQ(0, ftruncate(file, kTile));
    void* const start = mmap(nullptr, kLength + kTile, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(MAP_FAILED, start);
    char* const text = static_cast<char*>(start);
    for (std::size_t offset = 0; offset < kLength; offset += kTile)
    {
        mmap(text + offset, kTile, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, file, 0);
    }
    close(file);
    std::memset(text, 'x', kTile);
    EXPECT_FALSE(SetErrorMessage(ZR_ERROR_ALREADY_INITIALISED, text + 1)); // 2^31 - 1 characters
    EXPECT_TRUE(SetErrorMessage(ZR_ERROR_ALREADY_INITIALISED, text + 2));
    munmap(start, kLength + kTile); // no lookup comes before the reset
}
