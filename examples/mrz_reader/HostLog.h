// How this program uses the log: its categories, and the source text of its lines.
#pragma once

#include <ErrorHandlerDll/ErrorHandlerDll.h>

namespace HostLog
{

// One bit for each kind of line, so that a support engineer can switch on, say, the raw data alone.
constexpr unsigned int kFiles = 0x0100;
constexpr unsigned int kRawData = 0x0200;
constexpr unsigned int kVerdicts = 0x0400;

} // namespace HostLog

// "MrzReader(42) : ReadFile() - ": put together by the compiler, so that a line that the filter drops costs nothing.
#define HOST_LOG_STRINGIFY_(x) #x
#define HOST_LOG_STRINGIFY(x) HOST_LOG_STRINGIFY_(x)
#define HOST_LOG_SOURCE(unit, function) #unit "(" HOST_LOG_STRINGIFY(__LINE__) ") : " #function "() - "
