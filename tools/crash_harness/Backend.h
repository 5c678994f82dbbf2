// What the host asks of the library under test: to log, and to handle fatal signals. One file for each library implements
// it.
#ifndef CRASH_HARNESS_BACKEND_H
#define CRASH_HARNESS_BACKEND_H

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Backend
{

// `strategy` is "append", "overwrite" or "rotate". The log is host.log in the working folder, or what the library makes of
// it.
void Start(std::string_view strategy);

// Returns whether the line is in the log.
bool Log(int worker, std::uint64_t number);

// Hex bytes, where the library can log them inside its lock; otherwise returns false.
bool LogBytes(const unsigned char* bytes, int length);

void RaiseAndHandle();

// Installs the handlers for SIGSEGV, SIGBUS, SIGILL and SIGFPE, with SA_ONSTACK.
void InstallHandlers();

} // namespace Backend

// ---- What the host offers to the handler ----

namespace Host
{

// Returns when this thread is to stop for ever instead of dumping: it plays the owner of a lock that never leaves.
void OnFault();

// After a dump. `context` is the signal frame's; the stack used below it is recorded.
[[noreturn]] void OnDumped(const void* context, bool keptErrno);

// After the first of two dumps.
void OnFirstDump();

constexpr int kErrnoBefore = 4242;

} // namespace Host

#endif
