#include "MrzParser.h"

#include <algorithm>
#include <array>

namespace Mrz
{
namespace
{

constexpr char kFiller = '<';

// A run of characters in one line of a zone; line and start count from 0.
struct Span
{
    size_t line = 0;
    size_t start = 0;
    size_t length = 0;
};

// A check digit and the runs it covers, joined in this order. Unused runs have length 0.
struct Check
{
    const char* field = nullptr;
    Span digit;
    std::array<Span, 4> covered;
};

struct Layout
{
    const char* name;
    size_t lineCount;
    size_t width;
    Span documentCode, issuer, names, documentNumber, nationality, birthDate, sex, expiryDate;
    Span longNumber; // where a document number of more than 9 characters goes on; empty when the format has no such rule
    std::array<Check, 5> checks; // the document number's first; unused ones have no field
};

constexpr Layout kTd1 = {
    .name = "TD1",
    .lineCount = 3,
    .width = 30,
    .documentCode = {0, 0, 2},
    .issuer = {0, 2, 3},
    .names = {2, 0, 30},
    .documentNumber = {0, 5, 9},
    .nationality = {1, 15, 3},
    .birthDate = {1, 0, 6},
    .sex = {1, 7, 1},
    .expiryDate = {1, 8, 6},
    .longNumber = {0, 15, 15},
    .checks = {{
        {"document number", {0, 14, 1}, {{{0, 5, 9}}}},
        {"date of birth", {1, 6, 1}, {{{1, 0, 6}}}},
        {"date of expiry", {1, 14, 1}, {{{1, 8, 6}}}},
        {"whole zone", {1, 29, 1}, {{{0, 5, 25}, {1, 0, 7}, {1, 8, 7}, {1, 18, 11}}}},
    }},
};

constexpr Layout kTd2 = {
    .name = "TD2",
    .lineCount = 2,
    .width = 36,
    .documentCode = {0, 0, 2},
    .issuer = {0, 2, 3},
    .names = {0, 5, 31},
    .documentNumber = {1, 0, 9},
    .nationality = {1, 10, 3},
    .birthDate = {1, 13, 6},
    .sex = {1, 20, 1},
    .expiryDate = {1, 21, 6},
    .longNumber = {1, 28, 7},
    .checks = {{
        {"document number", {1, 9, 1}, {{{1, 0, 9}}}},
        {"date of birth", {1, 19, 1}, {{{1, 13, 6}}}},
        {"date of expiry", {1, 27, 1}, {{{1, 21, 6}}}},
        {"whole zone", {1, 35, 1}, {{{1, 0, 10}, {1, 13, 7}, {1, 21, 14}}}},
    }},
};

constexpr Layout kTd3 = {
    .name = "TD3",
    .lineCount = 2,
    .width = 44,
    .documentCode = {0, 0, 2},
    .issuer = {0, 2, 3},
    .names = {0, 5, 39},
    .documentNumber = {1, 0, 9},
    .nationality = {1, 10, 3},
    .birthDate = {1, 13, 6},
    .sex = {1, 20, 1},
    .expiryDate = {1, 21, 6},
    .longNumber = {},
    .checks = {{
        {"document number", {1, 9, 1}, {{{1, 0, 9}}}},
        {"date of birth", {1, 19, 1}, {{{1, 13, 6}}}},
        {"date of expiry", {1, 27, 1}, {{{1, 21, 6}}}},
        {"personal number", {1, 42, 1}, {{{1, 28, 14}}}},
        {"whole zone", {1, 43, 1}, {{{1, 0, 10}, {1, 13, 7}, {1, 21, 22}}}},
    }},
};

// <cctype> depends on the locale and is undefined for negative characters; zones are plain ASCII.
bool IsDigit(char c)
{
    return c >= '0' && c <= '9';
}

bool IsLetter(char c)
{
    return c >= 'A' && c <= 'Z';
}

std::string_view Cut(const Lines& lines, const Span& span)
{
    return std::string_view(lines[span.line]).substr(span.start, span.length);
}

std::string_view WithoutFillersAtEnd(std::string_view text)
{
    return text.substr(0, text.find_last_not_of(kFiller) + 1);
}

std::string Readable(std::string_view text)
{
    std::string result(WithoutFillersAtEnd(text));
    std::replace(result.begin(), result.end(), kFiller, ' ');
    return result;
}

Fault BadCharacter(const Lines& lines, size_t line, size_t position)
{
    Fault fault;
    fault.kind = FaultKind::BAD_CHARACTER;
    fault.line = static_cast<int>(line) + 1;
    fault.position = static_cast<int>(position) + 1;
    fault.found = static_cast<unsigned char>(lines[line][position]);
    return fault;
}

template <typename Allowed>
Fault FindBadCharacter(const Lines& lines, const Span& span, Allowed allowed)
{
    const std::string_view text = Cut(lines, span);
    const auto bad = std::find_if_not(text.begin(), text.end(), [&](char c) { return c == kFiller || allowed(c); });
    return bad == text.end() ? Fault()
                             : BadCharacter(lines, span.line, span.start + static_cast<size_t>(bad - text.begin()));
}

// The characters come first: of a file that is no text at all, the length of its first line says nothing.
Fault CheckAlphabet(const Lines& lines)
{
    for (size_t line = 0; line < lines.size(); ++line)
    {
        const Fault fault =
            FindBadCharacter(lines, {line, 0, lines[line].size()}, [](char c) { return IsDigit(c) || IsLetter(c); });
        if (fault)
        {
            return fault;
        }
    }
    return {};
}

Fault CheckFieldCharacters(const Lines& lines, const Layout& layout)
{
    for (const Span& span : {layout.issuer, layout.names, layout.nationality, layout.sex})
    {
        if (const Fault fault = FindBadCharacter(lines, span, IsLetter))
        {
            return fault;
        }
    }
    for (const Span& span : {layout.birthDate, layout.expiryDate})
    {
        if (const Fault fault = FindBadCharacter(lines, span, IsDigit))
        {
            return fault;
        }
    }
    for (const Check& check : layout.checks)
    {
        if (const Fault fault = FindBadCharacter(lines, check.digit, IsDigit))
        {
            return fault;
        }
    }
    return {};
}

// Two lines can be TD2 or TD3: the nearer width decides, so that a line with a lost character is reported by its length.
const Layout* ChooseLayout(const Lines& lines)
{
    if (lines.size() == kTd1.lineCount)
    {
        return &kTd1;
    }
    if (lines.size() != kTd2.lineCount)
    {
        return nullptr;
    }
    const size_t longest = std::max(lines[0].size(), lines[1].size());
    return longest > (kTd2.width + kTd3.width) / 2 ? &kTd3 : &kTd2;
}

Fault CheckLengths(const Lines& lines, const Layout* layout)
{
    Fault fault;
    if (!layout)
    {
        fault.kind = FaultKind::LINE_COUNT;
        fault.found = static_cast<int>(lines.size());
        return fault;
    }
    for (size_t line = 0; line < lines.size(); ++line)
    {
        if (lines[line].size() == layout->width)
        {
            continue;
        }
        fault.kind = FaultKind::LINE_LENGTH;
        fault.line = static_cast<int>(line) + 1;
        fault.found = static_cast<int>(lines[line].size());
        fault.expected = static_cast<int>(layout->width);
        return fault;
    }
    return fault;
}

// A field of fillers only may carry a filler as its check digit.
Fault VerifyCheckDigit(const char* field, std::string_view covered, char digit)
{
    const bool isEmpty = WithoutFillersAtEnd(covered).empty();
    const int expected = CalculateCheckDigit(covered);
    if (digit == '0' + expected || (isEmpty && digit == kFiller))
    {
        return {};
    }

    Fault fault;
    fault.kind = FaultKind::CHECK_DIGIT;
    fault.field = field;
    fault.found = static_cast<unsigned char>(digit);
    fault.expected = expected;
    return fault;
}

// A number of more than 9 characters has a filler in place of its check digit and goes on in the optional data, up to the
// first filler there; the last character before that filler is the check digit. Empty when the number is not a long one.
std::string LongNumberAndDigit(const Lines& lines, const Layout& layout)
{
    const std::string_view rest = Cut(lines, layout.longNumber);
    const std::string_view tail = rest.substr(0, rest.find(kFiller));
    if (Cut(lines, layout.checks[0].digit).front() != kFiller || tail.size() < 2 || !IsDigit(tail.back()))
    {
        return {};
    }
    return std::string(Cut(lines, layout.documentNumber)).append(tail);
}

Fault VerifyCheckDigits(const Lines& lines, const Layout& layout, const std::string& longNumber)
{
    for (const Check& check : layout.checks)
    {
        if (!check.field)
        {
            break;
        }
        std::string covered;
        for (const Span& span : check.covered)
        {
            covered += Cut(lines, span);
        }
        char digit = Cut(lines, check.digit).front();
        if (&check == &layout.checks[0] && !longNumber.empty())
        {
            digit = longNumber.back();
            covered = longNumber.substr(0, longNumber.size() - 1);
        }
        if (const Fault fault = VerifyCheckDigit(check.field, covered, digit))
        {
            return fault;
        }
    }
    return {};
}

void FillZone(const Lines& lines, const Layout& layout, const std::string& longNumber, Zone& zone)
{
    zone.format = layout.name;
    zone.documentCode = Readable(Cut(lines, layout.documentCode));
    zone.issuer = Readable(Cut(lines, layout.issuer));
    zone.documentNumber =
        longNumber.empty() ? Readable(Cut(lines, layout.documentNumber)) : longNumber.substr(0, longNumber.size() - 1);
    zone.nationality = Readable(Cut(lines, layout.nationality));
    zone.birthDate = Cut(lines, layout.birthDate);
    zone.sex = Readable(Cut(lines, layout.sex));
    zone.expiryDate = Cut(lines, layout.expiryDate);

    const std::string_view names = Cut(lines, layout.names);
    const size_t separator = names.find("<<");
    zone.surname = Readable(names.substr(0, separator));
    zone.givenNames = separator == std::string_view::npos ? std::string() : Readable(names.substr(separator + 2));
}

bool IsTwoDigitNumberWithin(std::string_view text, int lowest, int highest)
{
    if (text.find(kFiller) != std::string_view::npos)
    {
        return true;
    }
    const int number = (text[0] - '0') * 10 + (text[1] - '0');
    return number >= lowest && number <= highest;
}

} // namespace

std::vector<Lines> SplitIntoZones(std::string_view text)
{
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    if (text.substr(0, kByteOrderMark.size()) == kByteOrderMark)
    {
        text.remove_prefix(kByteOrderMark.size());
    }

    std::vector<Lines> zones;
    bool insideZone = false;
    while (!text.empty())
    {
        const size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));

        const std::string_view content = line.substr(0, line.find_last_not_of(" \t\r") + 1);
        if (!content.empty())
        {
            if (!insideZone)
            {
                zones.emplace_back();
            }
            zones.back().emplace_back(content);
        }
        insideZone = !content.empty();
    }
    return zones;
}

Fault ParseZone(const Lines& lines, Zone& zone)
{
    if (const Fault fault = CheckAlphabet(lines))
    {
        return fault;
    }
    const Layout* layout = ChooseLayout(lines);
    if (const Fault fault = CheckLengths(lines, layout))
    {
        return fault;
    }
    if (const Fault fault = CheckFieldCharacters(lines, *layout))
    {
        return fault;
    }
    const std::string longNumber = LongNumberAndDigit(lines, *layout);
    if (const Fault fault = VerifyCheckDigits(lines, *layout, longNumber))
    {
        return fault;
    }
    FillZone(lines, *layout, longNumber, zone);
    return {};
}

int CalculateCheckDigit(std::string_view text)
{
    constexpr int kWeights[] = {7, 3, 1};
    int sum = 0;
    for (size_t i = 0; i < text.size(); ++i)
    {
        const int value = IsDigit(text[i]) ? text[i] - '0' : IsLetter(text[i]) ? text[i] - 'A' + 10 : 0;
        sum = (sum + value * kWeights[i % 3]) % 10;
    }
    return sum;
}

bool IsPlausibleDate(std::string_view date)
{
    return date.size() == 6 && IsTwoDigitNumberWithin(date.substr(2, 2), 1, 12) &&
           IsTwoDigitNumberWithin(date.substr(4, 2), 1, 31);
}

} // namespace Mrz
