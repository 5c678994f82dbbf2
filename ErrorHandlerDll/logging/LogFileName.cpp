#include "ErrorHandlerDll/logging/LogFileName.h"

#include <algorithm>
#include <charconv>

namespace
{

constexpr std::string_view kDefaultExtension = ".log";

} // namespace

LogPath::LogPath(std::initializer_list<std::string_view> parts)
{
    for (const std::string_view part : parts)
    {
        m_length += part.copy(m_text + m_length, PATH_MAX - m_length);
    }
    m_text[m_length] = '\0';
}

LogFileName LogFileName::Split(std::string_view fileName)
{
    const std::size_t component = fileName.find_last_of("\\/") + 1; // npos + 1 is 0
    const std::size_t lastDot = fileName.rfind('.');
    if (lastDot == std::string_view::npos || lastDot < component)
    {
        return {fileName, {}, kDefaultExtension};
    }
    const std::size_t dotBefore = fileName.substr(0, lastDot).rfind('.');
    const std::size_t stemEnd = dotBefore == std::string_view::npos || dotBefore < component ? lastDot : dotBefore;
    return {fileName.substr(0, stemEnd), fileName.substr(stemEnd, lastDot - stemEnd), fileName.substr(lastDot)};
}

int ParseFileNumber(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    const bool hasSign = text.starts_with('+') || text.starts_with('-');
    const std::string_view digits = text.substr(hasSign ? 1 : 0);
    if (text.empty() || digits.find_first_not_of("0123456789") != std::string_view::npos)
    {
        return kNoNumber;
    }
    int number = 0;
    const char* const start = text.starts_with('-') ? text.data() : digits.data();
    const auto [end, error] = std::from_chars(start, digits.data() + digits.size(), number);
    return error == std::errc() || digits.empty() ? number : kNoNumber;
}
