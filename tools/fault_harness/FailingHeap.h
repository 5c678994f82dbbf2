// The heap of the program, one allocation of which can be made to fail. Without a sanitizer that is every malloc, whoever
// calls it; with one, operator new.
#ifndef FAULT_HARNESS_FAILINGHEAP_H
#define FAULT_HARNESS_FAILINGHEAP_H

namespace FailingHeap
{

// Of the calling thread: so many allocations succeed from here on, then one fails.
void FailAfter(long allocations);

// Ends that. Returns whether one failed.
bool Stop();

// Blocks that the calling thread has allocated and nobody has freed; 0 where a sanitizer looks for leaks.
long Outstanding();

} // namespace FailingHeap

#endif
