// What is compared: something that writes log lines to a file and flushes it after every 101st line.
//
// An adapter derives from LogAdapter and gives the operations; the scenarios are loops over these, compiled once for each
// adapter, so that no call through a table stands between a scenario and its subject.
#ifndef BENCH_LOGSUBJECT_H
#define BENCH_LOGSUBJECT_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>
#include <x86intrin.h>

enum class Operation
{
    LINE,      // a line of constant length
    VARYING,   // lines of varying length
    FORMATTED, // "%s %d %08x"
    FILTERED,  // a call below the level
    HEX,       // a line with the hex dump of a buffer
    ROTATION   // lines to numbered files; run as LINE
};

// What the operations write. The messages are made for each subject so that its lines have as many bytes as everybody's.
struct Workload
{
    static constexpr std::size_t kMessages = 64; // a power of two

    std::string message;
    std::string varying[kMessages];
    std::vector<unsigned char> bytes;
};

constexpr int kLinesPerFlush = 101;
constexpr const char* kSource = "Bench::Run() - ";

class LogSubject
{
public:
    virtual ~LogSubject() = default;
    virtual const char* Name() const = 0;

    // Whether the fields of its lines cannot be chosen.
    virtual bool HasFormatOfItsOwn() const { return false; }

    // Starts a new log. `path` ends in ".log" and names a folder of its own, for subjects that make their names themselves.
    //   maxFileSize  where files are changed, in bytes; 0: one file
    virtual void Open(const std::string& path, std::size_t maxFileSize) = 0;
    virtual void Close() = 0; // writes what is buffered

    virtual bool Can(Operation operation) const = 0;
    virtual void Run(Operation operation, const Workload& work, unsigned count) = 0;

    // As Run with LINE, with the duration of each call in ticks of the processor's time stamp counter.
    virtual void RunTimed(const Workload& work, std::vector<std::uint32_t>& ticks) = 0;
};

using LogSubjectList = std::vector<std::unique_ptr<LogSubject>>;
LogSubjectList& LogSubjects();

// Derived has Line, Formatted, Filtered and Hex, without virtual; see LimitLog.cpp.
template <class Derived>
class LogAdapter : public LogSubject
{
public:
    bool Can(Operation) const override { return true; }

    void Run(Operation operation, const Workload& work, unsigned count) override
    {
        switch (operation)
        {
        case Operation::LINE:
        case Operation::ROTATION:
            Repeat(count, [&](unsigned) { Self().Line(work.message); });
            break;
        case Operation::VARYING:
            Repeat(count, [&](unsigned i) { Self().Line(work.varying[i % Workload::kMessages]); });
            break;
        case Operation::FORMATTED:
            Repeat(count, [&](unsigned i) { Self().Formatted(work.message.c_str(), static_cast<int>(i), i * 2654435761u); });
            break;
        case Operation::FILTERED:
            Repeat(count, [&](unsigned) { Self().Filtered(work.message); });
            break;
        case Operation::HEX:
            Repeat(count, [&](unsigned) { Self().Hex(work.bytes.data(), static_cast<int>(work.bytes.size())); });
            break;
        }
    }

    void RunTimed(const Workload& work, std::vector<std::uint32_t>& ticks) override
    {
        for (std::uint32_t& duration : ticks)
        {
            const std::uint64_t start = __rdtsc();
            Self().Line(work.message);
            duration = static_cast<std::uint32_t>(__rdtsc() - start);
        }
    }

private:
    // One loop for each operation: a choice inside the loop costs a filtered call more than the call itself, and only some
    // subjects, as the compiler moves it out for the others.
    template <class Call>
    static void Repeat(unsigned count, const Call& call)
    {
        for (unsigned i = 0; i < count; ++i)
        {
            call(i);
        }
    }
    Derived& Self() { return static_cast<Derived&>(*this); }
};

// For subjects that do not flush by count: each thread asks for a flush after every 101st line of its own.
inline bool IsFlushDue()
{
    static thread_local int tLines = 0;
    if (++tLines < kLinesPerFlush)
    {
        return false;
    }
    tLines = 0;
    return true;
}

template <class Subject>
struct Registration
{
    Registration() { LogSubjects().push_back(std::make_unique<Subject>()); }
};

#endif
