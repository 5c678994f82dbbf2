// How this program uses the log: its categories.
#pragma once

namespace HostLog
{

// One bit for each kind of line, so that a support engineer can switch on, say, the raw data alone.
constexpr unsigned int kFiles = 0x0100;
constexpr unsigned int kRawData = 0x0200;
constexpr unsigned int kVerdicts = 0x0400;

} // namespace HostLog
