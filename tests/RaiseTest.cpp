// Raised errors: code, text and location, and what CheckedRaise.h lets pass.
#include "ErrorHandlerDll/CheckedRaise.h"
#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/HalvikException.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>

namespace
{

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
static_assert(Fits<const char*, ZelvoReaderErrorCode, short, bool>(ZR_ERROR_INDEX_OUT_OF_BOUNDS));
static_assert(Fits<unsigned char, unsigned int, int, char>(ZR_ERROR_CRC16_FRAME_CRC));
static_assert(!Fits<int, int>(ZR_ERROR_COM_PORT_OPEN), "too few");
static_assert(!Fits<char*, int>(ZR_ERROR_FILE_NOT_FOUND) && !Fits<int>(kCustom), "too many");
static_assert(!Fits<int>(ZR_ERROR_FILE_NOT_FOUND) && !Fits<std::string>(ZR_ERROR_FILE_NOT_FOUND), "no text");
static_assert(!Fits<char*>(ZR_ERROR_TRACK_DECODE) && !Fits<double>(ZR_ERROR_TRACK_DECODE), "no number");
static_assert(!Fits<long>(ZR_ERROR_TRACK_DECODE) && !Fits<unsigned int>(ZR_ERROR_TRACK_DECODE), "too wide");

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

// Twice: the list is left as it was.
void RaiseVar(ZelvoReaderErrorCode code, const char* location, ...)
{
    va_list arguments;
    va_start(arguments, location);
    CatchError([&] { RaiseErrorVar(code, location, arguments); });
    RaiseErrorVar(code, location, arguments);
}

struct Raise : testing::Test
{
    Raise() { AddCustomErrorMessage(kCustom, "Tray %d of %s %d"); }
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
    expect(ZR_ERROR_CRC16_FRAME_CRC, "Message CRC16 is incorrect - calculated H:0x01 L:0xab, received: H:0x00 L:0xff",
           [] { RaiseError(ZR_ERROR_CRC16_FRAME_CRC, "at", 1, 0xAB, 0, 255); });
    expect(ZR_ERROR_NOT_INITIALISED, "Not initialised", [] { RaiseError(ZR_ERROR_NOT_INITIALISED, "at", "ignored"); });
    expect(ZR_ERROR_UNKNOWN_CODE, "Unknown error code 7", [] { RaiseError(ZR_ERROR_UNKNOWN_CODE, "at", 7); });
    expect(kCustom, "Tray 3 of B 1", [] { RaiseVar(kCustom, "at", 3, "B", 1); });
    expect(kUndefinedCustom, "Undefined custom error code", [] { RaiseVar(kUndefinedCustom, "at"); });
    expect(kStructured, " (c0000005) occurred at 00000ABC", [] { RaiseVar(kStructured, "at", 0xABCu); });
    expect(kInvalid, "Invalid error code", [] { RaiseVar(kInvalid, "at"); });
    expect(ZR_ERROR_COM_PORT_READ, "Error reading from COM port 4 - [1] gone",
           [] { RaiseCheckedError<ZR_ERROR_COM_PORT_READ>("at", short{4}, true, "gone"); });
    SetErrorMessage(ZR_ERROR_UNKNOWN_CODE, "code <%d>");
    expect(kCustom, "code <65568>", [] { RaiseError(kCustom, "at", 3, "B"); });
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
    const std::map<std::string, std::size_t> keptLengths = {
        {std::string(5000, 'x'), 511},
        {std::string(509, 'x') + "\u00E9", 511},
        {std::string(510, 'x') + "\u00E9", 510},
        {std::string(509, 'x') + "\u20AC", 509},
        {std::string(508, 'x') + "\U0001F600", 508},
        {std::string(509, 'x') + "\u00E9\u00E9", 511},
        {std::string(600, '\xA4'), 511}, // Latin-1
        {std::string(510, 'x') + "\xE9y", 511},
    };
    for (const auto& row : keptLengths)
    {
        const std::string& text = row.first;
        SetErrorMessage(ZR_ERROR_NOT_INITIALISED, "%s");
        const auto error = CatchError([&] { RaiseError(ZR_ERROR_NOT_INITIALISED, text.c_str(), text.c_str()); });
        const std::string expected = text.substr(0, row.second) + std::string(512 - row.second, '\0');
        EXPECT_EQ(expected, std::string(error->GetErrorString(), 512));
        EXPECT_EQ(expected, std::string(error->GetLocationString(), 512));
    }
}
