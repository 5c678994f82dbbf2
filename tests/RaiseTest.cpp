// Raised errors: code, text and location, and what CheckedRaise.h lets pass.
#include "ErrorHandlerDll/Boundary.h"
#include "ErrorHandlerDll/CheckedRaise.h"
#include "support/LogTest.h"

#include <cerrno>
#include <map>

namespace
{

template <class... Arguments>
constexpr bool Fits(ZelvoReaderErrorCode code)
{
    return ErrorArgumentsFit<Arguments...>(ErrorArgumentKinds(code));
}

constexpr auto kCustom = static_cast<ZelvoReaderErrorCode>(0x10020);
constexpr auto kStructured = static_cast<ZelvoReaderErrorCode>(static_cast<int>(0xC0000005));

static_assert(Fits<>(ZR_ERROR_NOT_INITIALISED) && Fits<>(kCustom));
static_assert(Fits<char*>(ZR_ERROR_FILE_NOT_FOUND) && Fits<const char*>(ZR_ERROR_FILE_NOT_FOUND));
static_assert(Fits<const char*, ZelvoReaderErrorCode, short, bool>(ZR_ERROR_INDEX_OUT_OF_BOUNDS));
static_assert(Fits<unsigned char, unsigned int, int, char>(ZR_ERROR_CRC16_FRAME_CRC));
static_assert(!Fits<int, int>(ZR_ERROR_COM_PORT_OPEN), "too few");
static_assert(!Fits<char*, int>(ZR_ERROR_FILE_NOT_FOUND) && !Fits<int>(kCustom), "too many");
static_assert(!Fits<int>(ZR_ERROR_FILE_NOT_FOUND) && !Fits<std::string>(ZR_ERROR_FILE_NOT_FOUND), "no text");
static_assert(!Fits<char*>(ZR_ERROR_TRACK_DECODE) && !Fits<double>(ZR_ERROR_TRACK_DECODE), "no number");
static_assert(!Fits<long>(ZR_ERROR_TRACK_DECODE) && !Fits<unsigned int>(ZR_ERROR_TRACK_DECODE), "too wide");

// Twice: the list is left as it was.
void RaiseVar(ZelvoReaderErrorCode code, const char* location, ...)
{
    va_list arguments;
    va_start(arguments, location);
    AtBoundary("", [&] { RaiseErrorVar(code, location, arguments); });
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
    const auto expect = [](ZelvoReaderErrorCode code, const std::string& message, void (*raise)())
    {
        const CapturedLog log;
        errno = ENOTTY;
        EXPECT_EQ(code, AtBoundary("B - ", raise)) << message;
        EXPECT_EQ(ENOTTY, errno);
        EXPECT_EQ("ERROR|at " + message, log.GetFlushedLines().at(1));
        EXPECT_EQ("ERROR|B - [caught]: " + message, log.GetFlushedLines().back());
    };
    expect(ZR_ERROR_CRC16_FRAME_CRC, "Message CRC16 is incorrect - calculated H:0x01 L:0xab, received: H:0x00 L:0xff",
           [] { RaiseError(ZR_ERROR_CRC16_FRAME_CRC, "at ", 1, 0xAB, 0, 255); });
    expect(ZR_ERROR_NOT_INITIALISED, "Not initialised", [] { RaiseError(ZR_ERROR_NOT_INITIALISED, "at ", "ignored"); });
    expect(ZR_ERROR_UNKNOWN_CODE, "Unknown error code 7", [] { RaiseError(ZR_ERROR_UNKNOWN_CODE, "at ", 7); });
    expect(kCustom, "Tray 3 of B 1", [] { RaiseVar(kCustom, "at ", 3, "B", 1); });
    expect(kStructured, " (c0000005) occurred at 00000ABC", [] { RaiseVar(kStructured, "at ", 0xABCu); });
    expect(ZR_ERROR_COM_PORT_READ, "Error reading from COM port 4 - [1] gone",
           [] { RaiseCheckedError<ZR_ERROR_COM_PORT_READ>("at ", short{4}, true, "gone"); });
    SetErrorMessage(ZR_ERROR_UNKNOWN_CODE, "code <%d>");
    expect(kCustom, "code <65568>", [] { RaiseError(kCustom, "at ", 3, "B"); });
    SetErrorMessage(ZR_ERROR_NOT_INITIALISED, "not yet: %s");
    expect(ZR_ERROR_NOT_INITIALISED, "not yet: camera", [] { RaiseError(ZR_ERROR_NOT_INITIALISED, "at ", "camera"); });
    SetErrorMessage(ZR_ERROR_NOT_INITIALISED, "no character of the C locale: %ls");
    expect(ZR_ERROR_NOT_INITIALISED, "", [] { RaiseError(ZR_ERROR_NOT_INITIALISED, "at ", L"\u20AC"); });
}

TEST_F(Raise, CutsLongTextsBetweenCharacters)
{
    const std::map<std::string, std::size_t> keptLengths = {
        {std::string(509, 'x') + "\u00E9", 511},
        {std::string(510, 'x') + "\u00E9", 510},
        {std::string(509, 'x') + "\u20AC", 509},
        {std::string(508, 'x') + "\U0001F600", 508},
        {std::string(509, 'x') + "\u00E9\u00E9", 511},
        {std::string(510, 'x') + "\xE9y", 511},
        {std::string(600, '\xA4'), 511}, // Latin-1
    };
    for (const auto& row : keptLengths)
    {
        const std::string& text = row.first;
        HalvikException error(ZR_ERROR_NOT_INITIALISED, text.c_str(), text.c_str());
        const std::string expected = text.substr(0, row.second) + std::string(512 - row.second, '\0');
        EXPECT_EQ(expected, std::string(error.GetErrorString(), 512));
        EXPECT_EQ(expected, std::string(error.GetLocationString(), 512));
    }
}
