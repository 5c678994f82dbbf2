// The stack that a dump runs on: the handler's own may be an alternate one of a few kilobytes, of which the signal frame has
// taken half.
#ifndef ERRORHANDLERDLL_CRASH_DUMPSTACK_H
#define ERRORHANDLERDLL_CRASH_DUMPSTACK_H

namespace Crash
{

// Calls run(argument) on a stack of the library, or on the caller's while all of those are in use. While it runs the thread
// has no alternate stack: a nested signal would start at the top of it and overwrite the frames that wait there.
// Exceptions pass. Async-signal-safe; takes about 300 bytes of the caller's stack.
void RunOnDumpStack(void (*run)(const void*), const void* argument);

// In a forked child: the stacks of other threads are free.
void FreeDumpStacks() noexcept;

} // namespace Crash

#endif
