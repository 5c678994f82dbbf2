// The process that crashes: logs numbered lines, prints, and then faults in the way that its first argument names, or works
// until the driver injects a fault.
//
//   host CASE WORKERS append|overwrite|rotate
#include "Backend.h"
#include "Cases.h"
#include "Heap.h"
#include "SignalStack.h"
#include "Workload.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <link.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <unistd.h>

namespace
{

constexpr int kLinesBefore = 250; // flushed in part
constexpr int kPrintedBefore = 10;

// The handler of a signal that is not fatal, as a host may have one to note that it was asked for something.
void LogFromHandler(int)
{
    for (int i = 0; i < 3; ++i)
    {
        LogNext(1);
    }
}

int CountModule(dl_phdr_info*, std::size_t, void* count)
{
    ++*static_cast<std::uint64_t*>(count);
    return 0;
}

bool MapRecord()
{
    const int descriptor = open("record", O_RDWR | O_CLOEXEC);
    void* const memory = mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    close(descriptor);
    gRecord = static_cast<Record*>(memory);
    return memory != MAP_FAILED;
}

void LogBefore()
{
    for (int i = 0; i < kLinesBefore; ++i)
    {
        LogNext(0);
    }
    for (int i = 0; i < kPrintedBefore; ++i)
    {
        PrintNext();
    }
}

} // namespace

void Host::OnFault()
{
    if (Cases::tStopsOnFault)
    {
        StopForEver();
    }
    ++gRecord->m_faults;
    Heap::CountCalls();
}

void Host::OnFirstDump()
{
    ++gRecord->m_dumped;
    if (Cases::gAfterDump == Cases::AfterDump::DIE_AFTER_FIRST)
    {
        kill(getpid(), SIGKILL);
    }
}

void Host::OnDumped(const void* context, bool keptErrno)
{
    // Where the processor's state was saved above the context, the signal frame ends; below it is the handler's.
    gRecord->m_stackUse =
        static_cast<std::uint64_t>(static_cast<const unsigned char*>(context) - SignalStack::GetLowestUsed());
    gRecord->m_heapCalls += Heap::GetCalls();
    gRecord->m_errnoLost += keptErrno ? 0 : 1;
    if (++gRecord->m_finished < Cases::gExpectedDumps)
    {
        StopForEver();
    }
    if (Cases::gAfterDump == Cases::AfterDump::EXIT)
    {
        std::exit(Cases::kExitStatus);
    }
    _exit(Cases::kExitStatus);
}

int main(int argc, char** argv)
{
    const Cases::Run run = argc == 4 ? Cases::Find(argv[1]) : nullptr;
    if (run == nullptr || !MapRecord())
    {
        return 2;
    }
    gWorkers = std::atoi(argv[2]);
    if (const char* const size = std::getenv("STACK_SIZE")) // beyond the signal frame
    {
        SignalStack::SetSize(getauxval(AT_MINSIGSTKSZ) + static_cast<std::size_t>(std::atol(size)));
    }
    Backend::Start(argv[3]);
    Backend::InstallHandlers();
    std::signal(SIGUSR1, LogFromHandler);
    SignalStack::Use();
    if (std::getenv("SILENT_BEFORE") == nullptr)
    {
        LogBefore();
    }
    std::uint64_t modules = 0;
    dl_iterate_phdr(CountModule, &modules);
    gRecord->m_modules = modules;
    run();
    return 3;
}
