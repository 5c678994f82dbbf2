// Raised errors: code, text and location, and what CheckedRaise.h lets pass.
#include "ErrorHandlerDll/CheckedRaise.h"
#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/HalvikException.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace
{

enum Tray
{
    UPPER
};

template <class... Arguments>
constexpr bool Fits(ZelvoReaderErrorCode code)
{
    return ErrorArgumentsFit<Arguments...>(ErrorArgumentKinds(code));
}

constexpr auto kCustom = static_cast<ZelvoReaderErrorCode>(0x10020);
constexpr auto kUndefinedCustom = static_cast<ZelvoReaderErrorCode>(0x10021);
constexpr auto kStructured = static_cast<ZelvoReaderErrorCode>(static_cast<int>(0xC0000005));
constexpr auto kInvalid = static_cast<ZelvoReaderErrorCode>(196);

static_assert(Fits<>(ZR_ERROR_NOT_INITIALISED) && Fits<>(kCustom));
static_assert(Fits<char*>(ZR_ERROR_FILE_NOT_FOUND) && Fits<const char*>(ZR_ERROR_FILE_NOT_FOUND));
static_assert(Fits<const char*, Tray, short, bool>(ZR_ERROR_INDEX_OUT_OF_BOUNDS));
static_assert(Fits<unsigned char, unsigned int, int, char>(ZR_ERROR_CRC16_FRAME_CRC));
static_assert(!Fits<int, int>(ZR_ERROR_COM_PORT_OPEN), "too few");
static_assert(!Fits<char*, int>(ZR_ERROR_FILE_NOT_FOUND) && !Fits<int>(kCustom), "too many");
static_assert(!Fits<int>(ZR_ERROR_FILE_NOT_FOUND) && !Fits<std::string>(ZR_ERROR_FILE_NOT_FOUND), "no text");
static_assert(!Fits<char*>(ZR_ERROR_TRACK_DECODE) && !Fits<double>(ZR_ERROR_TRACK_DECODE), "no number");
static_assert(!Fits<long>(ZR_ERROR_TRACK_DECODE) && !Fits<unsigned int>(ZR_ERROR_TRACK_DECODE), "too wide");

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

struct Raise : testing::Test
{
    Raise() { AddCustomErrorMessage(kCustom, "Tray %d of %s"); }
    ~Raise() override { ResetErrorMessages(); }
};

} // namespace

TEST_F(Raise, FillsTheTextOfTheCode)
{
    const auto expect = [](ZelvoReaderErrorCode code, const char* message, void (*raise)())
    {
        SCOPED_TRACE(message);
        const auto error = CatchError(raise);
        ASSERT_TRUE(error);
        EXPECT_EQ(code, error->GetErrorCode());
        EXPECT_STREQ(message, error->GetErrorString());
        EXPECT_STREQ("at", error->GetLocationString());
        EXPECT_FALSE(error->GetHandled());
    };
    expect(ZR_ERROR_INVALID_PARAMETER, "Paramater Invalid - width",
           [] { RaiseError(ZR_ERROR_INVALID_PARAMETER, "at", "width"); });
    expect(ZR_ERROR_CRC16_FRAME_CRC, "Message CRC16 is incorrect - calculated H:0x01 L:0xab, received: H:0x00 L:0xff",
           [] { RaiseError(ZR_ERROR_CRC16_FRAME_CRC, "at", 1, 0xAB, 0, 255); });
    expect(ZR_ERROR_NOT_INITIALISED, "Not initialised", [] { RaiseError(ZR_ERROR_NOT_INITIALISED, "at", "ignored"); });
    expect(ZR_ERROR_UNKNOWN_CODE, "Unknown error code 7", [] { RaiseError(ZR_ERROR_UNKNOWN_CODE, "at", 7); });
    expect(kCustom, "Unknown error code 65568", [] { RaiseError(kCustom, "at", 3, "B"); });
    expect(kCustom, "Tray 3 of B", [] { RaiseVar(kCustom, "at", 3, "B"); });
    expect(kUndefinedCustom, "Undefined custom error code", [] { RaiseVar(kUndefinedCustom, "at"); });
    expect(kStructured, " (c0000005) occurred at 00000ABC", [] { RaiseVar(kStructured, "at", 0xABCu); });
    expect(kInvalid, "Invalid error code", [] { RaiseVar(kInvalid, "at"); });
    expect(ZR_ERROR_COM_PORT_READ, "Error reading from COM port 4 - [1] gone",
           [] { RaiseCheckedError<ZR_ERROR_COM_PORT_READ>("at", short{4}, true, "gone"); });
    SetErrorMessage(ZR_ERROR_UNKNOWN_CODE, "code <%d>");
    expect(kCustom, "code <65568>", [] { RaiseError(kCustom, "at"); });
    SetErrorMessage(ZR_ERROR_NOT_INITIALISED, "not yet: %s");
    expect(ZR_ERROR_NOT_INITIALISED, "not yet: camera", [] { RaiseError(ZR_ERROR_NOT_INITIALISED, "at", "camera"); });
    const wchar_t noCharacter[] = {wchar_t(0x20AC), 0}; // not one of the C locale
    SetErrorMessage(ZR_ERROR_NOT_INITIALISED, "some text %ls");
    errno = ENOTTY;
    const auto error = CatchError([&] { RaiseError(ZR_ERROR_NOT_INITIALISED, nullptr, noCharacter); });
    EXPECT_EQ(ENOTTY, errno);
    EXPECT_EQ(std::string(1024, '\0'), std::string(error->GetErrorString(), 1024)); // the location is behind it
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
        va_end(arguments);
    };
    raiseTwice("at", 1, 2);
}
