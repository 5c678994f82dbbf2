// What the host leaves behind besides its output: a shared mapping of the file "record". The driver reads and writes the
// same fields, in this order.
#ifndef CRASH_HARNESS_RECORD_H
#define CRASH_HARNESS_RECORD_H

#include <atomic>
#include <cstdint>

constexpr int kMaxWorkers = 8;

struct Record
{
    std::atomic<std::uint64_t> m_ready;                 // the host has come to where the driver may inject
    std::atomic<std::uint64_t> m_go;                    // set by the driver: go on
    std::atomic<std::uint64_t> m_faults;                // entries of the signal handler
    std::atomic<std::uint64_t> m_dumped;                // constructor's dumps that returned
    std::atomic<std::uint64_t> m_finished;              // threads whose dumps are complete
    std::atomic<std::uint64_t> m_errnoLost;             // dumps that changed errno
    std::atomic<std::uint64_t> m_heapCalls;             // calls of the heap by a thread that dumps
    std::atomic<std::uint64_t> m_stackUse;              // bytes below the signal frame that the handler used
    std::atomic<std::uint64_t> m_modules;               // loaded when the case began
    std::atomic<std::uint64_t> m_printed;               // lines given to stdio
    std::atomic<std::uint64_t> m_frozen;                // m_before is valid
    std::atomic<std::uint64_t> m_returned[kMaxWorkers]; // log calls of each worker that have returned
    std::uint64_t m_before[kMaxWorkers];                // the same before the fault
};

#endif
