#include "ErrorHandlerDll/CheckedRaise.h"
#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/HalvikException.h"

#include <cerrno>
#include <cwchar>
#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace
{

constexpr auto kCustom = static_cast<ZelvoReaderErrorCode>(0x10020);
constexpr auto kUndefinedCustom = static_cast<ZelvoReaderErrorCode>(0x10021);
constexpr auto kStructured = static_cast<ZelvoReaderErrorCode>(static_cast<int>(0xC0000005));

void RaiseVar(ZelvoReaderErrorCode code, const char* location, ...)
{
    va_list arguments;
    va_start(arguments, location);
    RaiseErrorVar(code, location, arguments);
}

template <typename Body>
std::unique_ptr<HalvikException> CatchError(const Body& raise)
{
    try
    {
        raise();
    }
    catch (HalvikException* exception)
    {
        return std::unique_ptr<HalvikException>(exception);
    }
    return nullptr;
}

class Raise : public testing::Test
{
protected:
    void TearDown() override { ResetErrorMessages(); }
};

} // namespace

TEST_F(Raise, FillsTheTextOfTheCode)
{
    AddCustomErrorMessage(kCustom, "Tray %d of %s");
    const struct
    {
        void (*raise)();
        ZelvoReaderErrorCode code;
        const char* message;
    } rows[] = {
        {[] { RaiseError(ZR_ERROR_INVALID_PARAMETER, "at", "width"); }, ZR_ERROR_INVALID_PARAMETER,
         "Paramater Invalid - width"},
        {[] { RaiseError(ZR_ERROR_CRC16_FRAME_CRC, "at", 1, 0xAB, 0, 255); }, ZR_ERROR_CRC16_FRAME_CRC,
         "Message CRC16 is incorrect - calculated H:0x01 L:0xab, received: H:0x00 L:0xff"},
        {[] { RaiseError(ZR_ERROR_NOT_INITIALISED, "at", "ignored"); }, ZR_ERROR_NOT_INITIALISED, "Not initialised"},
        {[] { RaiseError(ZR_ERROR_UNKNOWN_CODE, "at", 7); }, ZR_ERROR_UNKNOWN_CODE, "Unknown error code 7"},
        {[] { RaiseError(kCustom, "at", 3, "B"); }, kCustom, "Unknown error code 65568"},
        {[] { RaiseVar(kCustom, "at", 3, "B"); }, kCustom, "Tray 3 of B"},
        {[] { RaiseVar(kUndefinedCustom, "at"); }, kUndefinedCustom, "Undefined custom error code"},
        {[] { RaiseVar(kStructured, "at", 0xABCu); }, kStructured, " (c0000005) occurred at 00000ABC"},
        {[] { RaiseVar(static_cast<ZelvoReaderErrorCode>(196), "at"); }, static_cast<ZelvoReaderErrorCode>(196),
         "Invalid error code"},
        {[] { RaiseCheckedError<ZR_ERROR_COM_PORT_READ>("at", short{4}, true, "gone"); }, ZR_ERROR_COM_PORT_READ,
         "Error reading from COM port 4 - [1] gone"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.message);
        const auto error = CatchError(row.raise);
        ASSERT_TRUE(error);
        EXPECT_EQ(row.code, error->GetErrorCode());
        EXPECT_STREQ(row.message, error->GetErrorString());
        EXPECT_STREQ("at", error->GetLocationString());
        EXPECT_FALSE(error->GetHandled());
    }
    AddCustomErrorMessage(kCustom, "static");
}

TEST_F(Raise, UsesOverridesAlsoForUnknownCodes)
{
    SetErrorMessage(ZR_ERROR_UNKNOWN_CODE, "code <%d>");
    EXPECT_STREQ("code <65568>", CatchError([] { RaiseError(kCustom, nullptr); })->GetErrorString());
    SetErrorMessage(ZR_ERROR_NOT_INITIALISED, "not yet: %s");
    const auto error = CatchError([] { RaiseError(ZR_ERROR_NOT_INITIALISED, nullptr, "camera"); });
    EXPECT_STREQ("not yet: camera", error->GetErrorString());
    EXPECT_STREQ("", error->GetLocationString());
}

TEST_F(Raise, CutsLongTextsBetweenCharacters)
{
    const struct
    {
        std::string text;
        std::size_t keptLength;
    } rows[] = {
        {std::string(511, 'x'), 511},
        {std::string(5000, 'x'), 511},
        {std::string(509, 'x') + "\u00E9", 511},
        {std::string(510, 'x') + "\u00E9", 510},
        {std::string(509, 'x') + "\u20AC", 509},
        {std::string(507, 'x') + "\U0001F600", 511},
        {std::string(508, 'x') + "\U0001F600", 508},
        {std::string(509, 'x') + "\u00E9\u00E9", 511},
        {std::string(600, '\xA4'), 511}, // Latin-1
        {std::string(600, '\xE9'), 511},
        {std::string(510, 'x') + "\xE9y", 511},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.text);
        SetErrorMessage(ZR_ERROR_NOT_INITIALISED, row.text.c_str()); // the template itself is long
        const auto fromTemplate = CatchError([&] { RaiseError(ZR_ERROR_NOT_INITIALISED, row.text.c_str()); });
        SetErrorMessage(ZR_ERROR_NOT_INITIALISED, "%s"); // the argument is
        const auto fromArgument = CatchError([&] { RaiseError(ZR_ERROR_NOT_INITIALISED, "", row.text.c_str()); });
        const std::string expected = row.text.substr(0, row.keptLength) + std::string(512 - row.keptLength, '\0');
        EXPECT_EQ(expected, std::string(fromTemplate->GetErrorString(), 512));
        EXPECT_EQ(expected, std::string(fromTemplate->GetLocationString(), 512));
        EXPECT_EQ(expected, std::string(fromArgument->GetErrorString(), 512));
    }
}

TEST_F(Raise, LeavesTheListUnconsumed)
{
    const auto raiseTwice = [](const char* location, ...)
    {
        va_list arguments;
        va_start(arguments, location);
        for (int i = 0; i < 2; ++i)
        {
            const auto error = CatchError([&] { RaiseErrorVar(ZR_ERROR_TRACK_BLOCK_CHECKSUM, location, arguments); });
            EXPECT_STREQ("Track 1 Block 2 checksum error", error->GetErrorString());
        }
        EXPECT_EQ(1, va_arg(arguments, int));
        va_end(arguments);
    };
    raiseTwice("at", 1, 2);
}

TEST_F(Raise, GivesTheEmptyMessageWhenFormattingFails)
{
    SetErrorMessage(ZR_ERROR_NOT_INITIALISED, "some text %ls");
    const wchar_t unrepresentable[] = {wchar_t(0x20AC), 0}; // not a character of the C locale
    errno = ENOTTY;
    const auto error = CatchError([&] { RaiseError(ZR_ERROR_NOT_INITIALISED, "at", unrepresentable); });
    EXPECT_EQ(ENOTTY, errno);
    const std::string message(error->GetErrorString(), 512);
    EXPECT_EQ(std::string(512, '\0'), message);
}
