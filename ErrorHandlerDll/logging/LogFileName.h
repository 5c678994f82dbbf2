// Where the number stands in the name of a log file. Search mask and numbered names are both cut here, so that a mask
// matches every name of its series, whatever dots, digits and separators the name holds.
#ifndef ERRORHANDLERDLL_LOGGING_LOGFILENAME_H
#define ERRORHANDLERDLL_LOGGING_LOGFILENAME_H

#include <climits>
#include <cstddef>
#include <initializer_list>
#include <string_view>

// A name in a fixed buffer, so that a dump can make one. A text that is too long for a path is cut to one that is still too
// long: no file can be opened by it.
class LogPath
{
public:
    LogPath(std::initializer_list<std::string_view> parts);

    const char* GetData() const { return m_text; }
    operator std::string_view() const { return {m_text, m_length}; }

private:
    std::size_t m_length = 0;
    char m_text[PATH_MAX + 1];
};

struct LogFileName
{
    std::string_view m_stem;      // directory and what stands before the last two dots, or before the only one
    std::string_view m_middle;    // from the dot before the last one up to the last one; empty when there is only one
    std::string_view m_extension; // from the last dot on

    // Cuts `fileName`. A last component without a dot is taken as if it ended in ".log": a number at the very end of a name
    // could not be read back.
    static LogFileName Split(std::string_view fileName);
};

// Reads `text` as a file number: blanks, a sign, decimal digits. A sign alone reads as 0.
//   returns kNoNumber for anything else, and for what does not fit in 32 bits
constexpr int kNoNumber = -1;
int ParseFileNumber(std::string_view text);

#endif
