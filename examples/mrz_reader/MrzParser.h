// Machine-readable zones of travel documents (ICAO Doc 9303): TD1 (3 lines of 30 characters), TD2 (2 of 36) and TD3 (2 of
// 44). Pure functions on text: no files, no logging, no errors thrown but std::bad_alloc.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Mrz
{

using Lines = std::vector<std::string>;

struct Zone
{
    std::string format; // "TD1", "TD2" or "TD3"
    std::string documentCode;
    std::string issuer;
    std::string documentNumber;
    std::string surname;
    std::string givenNames;
    std::string nationality;
    std::string birthDate; // YYMMDD as printed; '<' stands for an unknown digit
    std::string sex;
    std::string expiryDate;
};

enum class FaultKind
{
    NONE,
    LINE_COUNT,    // found: number of lines
    LINE_LENGTH,   // line, found and expected: characters
    BAD_CHARACTER, // line, position, found: the character
    CHECK_DIGIT    // field, found: the character, expected: the calculated digit
};

struct Fault
{
    FaultKind kind = FaultKind::NONE;
    int line = 0;     // from 1
    int position = 0; // from 1
    int found = 0;
    int expected = 0;
    const char* field = "";

    explicit operator bool() const { return kind != FaultKind::NONE; }
};

// Splits the text of a file into its zones: lines in a row, separated by blank lines. Accepts LF and CRLF and a UTF-8 byte
// order mark; blanks at the end of a line are dropped.
std::vector<Lines> SplitIntoZones(std::string_view text);

// Reads one zone. Returns the first fault; `zone` is complete when its kind is NONE.
Fault ParseZone(const Lines& lines, Zone& zone);

// The check digit (0 to 9) of a text of the characters A-Z, 0-9 and '<': weights 7, 3, 1, letters from A = 10, modulo 10.
int CalculateCheckDigit(std::string_view text);

// Whether a YYMMDD date has a month and day that exist; unknown digits ('<') fit any.
bool IsPlausibleDate(std::string_view date);

} // namespace Mrz
