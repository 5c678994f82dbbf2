#include "CrashHandler.h"

#include "HostLog.h"
#include <ErrorHandlerDll/ExceptionHandler.h>
#include <ErrorHandlerDll/LinuxStructuredException.h>

#include <bit>
#include <cstdint>
#include <new>

namespace CrashHandler
{
namespace
{

constexpr int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL};

void OnFatalSignal(int signal, siginfo_t* info, void* context)
{
    try
    {
        StructuredException exception(signal, static_cast<ucontext_t*>(context), info);
        ExceptionHandler::HandleStructuredException(HOST_LOG_SOURCE(CrashHandler, OnFatalSignal), exception, false);
    }
    catch (...) // what could not be dumped does not keep the process from its end
    {
    }
    ::signal(signal, SIG_DFL);
    raise(signal);
}

} // namespace

void Install()
{
    struct sigaction action = {};
    action.sa_sigaction = OnFatalSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER; // a fault within the dump goes back to the dump
    sigemptyset(&action.sa_mask);
    for (const int signal : kFatalSignals)
    {
        sigaction(signal, &action, nullptr);
    }
}

AlternateStack::AlternateStack() : m_memory(new (std::nothrow) char[kBytes])
{
    stack_t stack = {};
    stack.ss_sp = m_memory.get();
    stack.ss_size = kBytes;
    if (m_memory && sigaltstack(&stack, &m_previous) != 0)
    {
        m_memory.reset();
    }
}

AlternateStack::~AlternateStack()
{
    if (m_memory)
    {
        sigaltstack(&m_previous, nullptr);
    }
}

void RunIntoFault()
{
    constexpr std::uintptr_t kNeverMapped = 0x9300;
    *std::bit_cast<volatile int*>(kNeverMapped) = 1;
}

} // namespace CrashHandler
