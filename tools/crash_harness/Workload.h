// What the host does before it faults: numbered lines, whose numbers it notes for the driver, and whatever else keeps
// a process busy.
#ifndef CRASH_HARNESS_WORKLOAD_H
#define CRASH_HARNESS_WORKLOAD_H

#include "Record.h"

#include <cstddef>

extern Record* gRecord;
extern int gWorkers;

void LogNext(int worker);
void PrintNext();

// Notes that all lines up to now came before the fault.
void NoteBefore();

// Says that the driver may go on, and waits for it.
void MeetDriver();

// Works with all workers until the driver injects a fault.
void RunWorkers();

[[noreturn]] void StopForEver();

// Where the compiler cannot see that nobody uses the memory.
void* Allocate(std::size_t size);

#endif
