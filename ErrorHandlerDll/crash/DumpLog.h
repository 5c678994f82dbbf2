// A dump's lines for the log.
#ifndef ERRORHANDLERDLL_CRASH_DUMPLOG_H
#define ERRORHANDLERDLL_CRASH_DUMPLOG_H

namespace Crash
{

// Logs a line. When that faults, because what is damaged is the logger itself, the line is lost, and the dumps of this
// process go on without the log. Async-signal-safe; in an emergency only.
void LogLine(int level, unsigned int mask, const char* source, const char* text);

// The same at level ZR_LOG_ERROR, all categories.
void LogLine(const char* text, const char* source = "");

} // namespace Crash

#endif
