// The level and thread fields of log lines.
#ifndef ERRORHANDLERDLL_LOGGING_LINEFIELDS_H
#define ERRORHANDLERDLL_LOGGING_LINEFIELDS_H

#include <cstddef>
#include <string_view>

// Room for "Level -2147483648 - " and its NUL.
constexpr std::size_t kLevelFieldSize = 24;

// Room for "[ThreadID: -2147483648] - " and its NUL.
constexpr std::size_t kThreadFieldSize = 32;

// The level field: "ERROR      - " and so on for the four named levels, "Level 5    - " for all others, which are formatted
// into `buffer` (kLevelFieldSize bytes).
std::string_view GetLogLevelAsString(int level, char* buffer);

// "[ThreadID: 4711] - " of the calling thread; kept per thread and made anew in a forked child.
std::string_view GetThreadField();

#endif
