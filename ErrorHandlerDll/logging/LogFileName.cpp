#include "ErrorHandlerDll/logging/LogFileName.h"

#include <charconv>
#include <cstddef>

namespace
{

constexpr std::string_view kDefaultExtension = ".log";
constexpr int kNoNumber = -1;

bool IsDecimal(std::string_view text)
{
    return text.find_first_not_of("0123456789") == std::string_view::npos;
}

// The digits of a well-formed number with a sign before them only when it is negative; null data when it is not well-formed.
std::string_view Digits(std::string_view text)
{
    const std::size_t start = text.find_first_not_of(' ');
    if (start == std::string_view::npos)
    {
        return {};
    }
    text.remove_prefix(start);
    const bool sign = text[0] == '+' || text[0] == '-';
    if (!IsDecimal(text.substr(sign ? 1 : 0)))
    {
        return {};
    }
    return text[0] == '+' ? text.substr(1) : text;
}

} // namespace

LogFileName LogFileName::Split(std::string_view fileName)
{
    const std::size_t separator = fileName.find_last_of("\\/");
    const std::size_t component = separator == std::string_view::npos ? 0 : separator + 1;
    const std::size_t lastDot = fileName.rfind('.');
    if (lastDot == std::string_view::npos || lastDot < component)
    {
        return {fileName, {}, kDefaultExtension};
    }
    const std::string_view extension = fileName.substr(lastDot);
    const std::size_t dotBefore = fileName.substr(0, lastDot).rfind('.');
    if (dotBefore == std::string_view::npos || dotBefore < component)
    {
        return {fileName.substr(0, lastDot), {}, extension};
    }
    return {fileName.substr(0, dotBefore), fileName.substr(dotBefore, lastDot - dotBefore), extension};
}

bool LogFileName::HasNumber() const
{
    return !m_middle.empty() && ParseFileNumber(m_middle.substr(1)) != kNoNumber;
}

int ParseFileNumber(std::string_view text)
{
    const std::string_view digits = Digits(text);
    if (digits.data() == nullptr)
    {
        return kNoNumber;
    }
    if (digits.empty() || digits == "-")
    {
        return 0;
    }
    int number = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return error == std::errc() ? number : kNoNumber;
}
