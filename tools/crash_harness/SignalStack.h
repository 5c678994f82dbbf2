// The alternate stack on which a thread handles its fault: painted, so that its use can be told afterwards.
#ifndef CRASH_HARNESS_SIGNALSTACK_H
#define CRASH_HARNESS_SIGNALSTACK_H

#include <cstddef>

namespace SignalStack
{

// How large the stacks are to be, in bytes.
void SetSize(std::size_t size);

// Gives the calling thread its stack, with a guard page on either side.
void Use();

// The lowest byte of the calling thread's stack that was written to.
const unsigned char* GetLowestUsed();

} // namespace SignalStack

#endif
