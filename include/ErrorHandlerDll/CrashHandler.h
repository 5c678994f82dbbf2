// Handlers for the end of a process: fatal signals leave a dump, an uncaught exception leaves its text, and then the process
// ends as it would have without them. Optional; everything is in this header. C++17 on, x86-64 Linux.
//
//   int main()
//   {
//       InitialiseLogging(true, ZR_LOG_WARNING, ZR_LOG_ALL_CATEGORIES, "reader.log");
//       InstallCrashHandlers();
//       InstallTerminateHandler();
//       const CrashHandlerStack stack; // and one in each thread
//
// What a host or another library installed before stays and gets its turn. The shared object that calls one of the
// installing functions is never unloaded again: the process may enter it at any time.
#ifndef ERRORHANDLERDLL_CRASHHANDLER_H
#define ERRORHANDLERDLL_CRASHHANDLER_H

#include "ErrorHandlerDll.h"
#include "ExceptionHandler.h"
#include "HalvikException.h"
#include "LinuxStructuredException.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <dlfcn.h>
#include <exception>
#include <new>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <typeinfo>
#include <unistd.h>

// The class itself is not hidden, or hosts could not have members of it without a warning.
#define ERRORHANDLERDLL_LOCAL __attribute__((visibility("hidden")))

// What a crash handler does before the process ends.
enum class CrashReport
{
    DUMP,             // writes the dump
    DUMP_AND_CALLBACK // also records it as the last error and calls the error callback, in the signal handler: the callback
                      // must be async-signal-safe
};

// Hidden: each shared object keeps its own copy, as several in a process may have been built with different versions of this
// header.
#pragma GCC visibility push(hidden)

namespace ErrorHandlerDllDetail
{

inline void StayLoaded(void* function)
{
    Dl_info object;
    if (dladdr(function, &object) != 0 && object.dli_fname != nullptr)
    {
        // Null for the program itself, which stays anyway.
        void* const handle = dlopen(object.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
        if (handle != nullptr)
        {
            dlclose(handle);
        }
    }
}

struct CrashSignal
{
    int number;
    bool isInstalled;
    struct sigaction earlier; // written before the handler is installed, read by it
};

inline CrashSignal gCrashSignals[] = {
    {SIGSEGV, false, {}}, {SIGBUS, false, {}}, {SIGILL, false, {}}, {SIGFPE, false, {}}, {SIGABRT, false, {}}};
inline CrashReport gCrashReport = CrashReport::DUMP;
inline std::terminate_handler gEarlierTerminateHandler = nullptr;

// A process may hold this header several times, in several shared objects: they know each other's handlers by their
// mask. It delays real-time signals in a pattern that nobody would choose; in a dump all signals wait anyway.
inline sigset_t CrashHandlerMask()
{
    constexpr int kOffsets[] = {3, 4, 6, 9, 11, 12, 16, 17, 19, 22};
    sigset_t mask;
    sigemptyset(&mask);
    for (const int offset : kOffsets)
    {
        sigaddset(&mask, SIGRTMIN + offset);
    }
    return mask;
}

inline bool IsCrashHandler(const struct sigaction& action)
{
    const sigset_t mask = CrashHandlerMask();
    for (int signal = 1; signal <= SIGRTMAX; ++signal)
    {
        if (sigismember(&action.sa_mask, signal) != sigismember(&mask, signal))
        {
            return false;
        }
    }
    return (action.sa_flags & (SA_SIGINFO | SA_ONSTACK | SA_NODEFER)) == (SA_SIGINFO | SA_ONSTACK | SA_NODEFER);
}

// A fault of the instruction comes again when the handler returns. What somebody sent does not, nor a memory error that
// the kernel reports on its own account.
inline bool ComesAgain(int signal, const siginfo_t& info)
{
    return info.si_code > 0 && signal != SIGABRT && !(signal == SIGBUS && info.si_code == BUS_MCEERR_AO);
}

inline void WriteCrashDump(int signal, siginfo_t* info, void* context)
{
    try
    {
        StructuredException exception(signal, static_cast<ucontext_t*>(context), info);
        if (gCrashReport == CrashReport::DUMP_AND_CALLBACK)
        {
            ExceptionHandler::HandleStructuredException("HandleCrashSignal() - ", exception, false);
        }
    }
    catch (...) // what could not be dumped does not keep the process from its end
    {
    }
}

// Afterwards the earlier action is in force again, and the signal meets it where it came: the same instruction, the same
// mask, the same sender. So a core file shows the place of the fault, and an earlier handler runs as if this one had not
// been.
inline void HandleCrashSignal(int signal, siginfo_t* info, void* context)
{
    const int errnoOfInterrupted = errno;
    for (const CrashSignal& crash : gCrashSignals)
    {
        if (crash.number != signal)
        {
            continue;
        }
        const bool isAgain = ComesAgain(signal, *info);
        const bool isIgnored = (crash.earlier.sa_flags & SA_SIGINFO) == 0 && crash.earlier.sa_handler == SIG_IGN;
        if (isIgnored && !isAgain)
        {
            break; // as before
        }
        WriteCrashDump(signal, info, context);
        sigaction(signal, &crash.earlier, nullptr);
        if (!isAgain)
        {
            // It waits until this handler returns.
            sigset_t only;
            sigemptyset(&only);
            sigaddset(&only, signal);
            pthread_sigmask(SIG_BLOCK, &only, nullptr);
            if (syscall(SYS_rt_tgsigqueueinfo, getpid(), syscall(SYS_gettid), signal, info) != 0)
            {
                raise(signal);
            }
        }
        break;
    }
    errno = errnoOfInterrupted;
}

inline void DescribeUncaught(char* text, std::size_t size, ZelvoReaderErrorCode& code)
{
    const std::exception_ptr current = std::current_exception();
    if (!current)
    {
        std::snprintf(text, size, "Terminated without an exception");
        return;
    }
    const std::type_info* const type = abi::__cxa_current_exception_type();
    int status = 0;
    char* const demangled = type == nullptr ? nullptr : abi::__cxa_demangle(type->name(), nullptr, nullptr, &status);
    const char* const name = demangled != nullptr ? demangled : (type == nullptr ? "unknown type" : type->name());
    try
    {
        std::rethrow_exception(current);
    }
    catch (HalvikException* exception)
    {
        code = exception == nullptr ? ZR_ERROR_UNKNOWN : exception->GetErrorCode();
        std::snprintf(text, size, "Uncaught HalvikException, code %d: %s%s", static_cast<int>(code),
                      exception == nullptr ? "" : exception->GetLocationString(),
                      exception == nullptr ? "" : exception->GetErrorString());
    }
    catch (StructuredException& exception)
    {
        code = ZR_ERROR_SYSTEM;
        std::snprintf(text, size, "Uncaught StructuredException: %s", exception.GetExceptionString());
    }
    catch (const std::exception& exception)
    {
        code = dynamic_cast<const std::bad_alloc*>(&exception) != nullptr ? ZR_ERROR_MEMORY_ALLOCATION : ZR_ERROR_UNKNOWN;
        std::snprintf(text, size, "Uncaught %s: %s", name, exception.what());
    }
    catch (...)
    {
        std::snprintf(text, size, "Uncaught %s", name);
    }
    std::free(demangled);
}

// The error block is the one way to have a line flushed with the file left open. The callback stays out: nothing has
// been unwound, so this thread may hold the very lock that the callback waits for.
inline void LogUncaught() noexcept
{
    constexpr std::size_t kTextSize = 2048; // two texts of 511 bytes, a type's name
    char text[kTextSize] = "";
    ZelvoReaderErrorCode code = ZR_ERROR_UNKNOWN;
    try
    {
        DescribeUncaught(text, sizeof text, code);
        if (std::strncmp(text, ExceptionHandler::m_lastErrorString, sizeof ExceptionHandler::m_lastErrorString - 1) == 0)
        {
            return; // another shared object with this header has written it
        }
        const ZelvoReaderErrorCallback callback = ExceptionHandler::m_errorCallback;
        void* const param = ExceptionHandler::m_errorCallbackParam;
        ExceptionHandler::SetErrorCallback(nullptr, nullptr);
        ExceptionHandler::GenericHandleException("terminate() - ", code, text, false,
                                                 ExceptionHandler::OnWriteErrorLog_WriteString, text);
        ExceptionHandler::SetErrorCallback(callback, param);
    }
    catch (...) // there is no memory, and the process ends
    {
    }
}

[[noreturn]] inline void HandleTerminate()
{
    LogUncaught();
    if (gEarlierTerminateHandler != nullptr)
    {
        gEarlierTerminateHandler();
    }
    std::abort();
}

} // namespace ErrorHandlerDllDetail

// Installs handlers for SIGSEGV, SIGBUS, SIGILL, SIGFPE and SIGABRT. They write the dump (LinuxStructuredException.h), in
// the log and to standard output; then the signal meets the action that was in force before, as if it had come first: the
// default one, which ends the process and leaves a core file, or the host's handler. Should the process go on after that,
// this signal is not dumped again.
//   again    a signal that has this handler, be it from another shared object, is left alone, and so is one to which another
//            handler came since; one that has been set back to default or ignored gets the handler again
//   ignored  a signal that was ignored still is, when it is sent; a fault that would end the process all the same is dumped
//   stack    a stack overflow is only dumped where the thread has a stack for signals, see CrashHandlerStack
//   returns  false when a handler could not be installed
//   threads  one at a time, before other threads may crash
inline bool InstallCrashHandlers(CrashReport report = CrashReport::DUMP)
{
    using namespace ErrorHandlerDllDetail;
    bool isComplete = true;
    StayLoaded(reinterpret_cast<void*>(HandleCrashSignal));
    for (CrashSignal& crash : gCrashSignals)
    {
        struct sigaction current;
        if (sigaction(crash.number, nullptr, &current) != 0)
        {
            isComplete = false;
            continue;
        }
        // A handler that came after this one may call it: installed above that, they would call each other for ever.
        const bool isFree = current.sa_handler == SIG_DFL || current.sa_handler == SIG_IGN;
        if (IsCrashHandler(current) || (crash.isInstalled && !isFree))
        {
            continue;
        }
        struct sigaction action = {};
        action.sa_sigaction = HandleCrashSignal;
        action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER; // a fault within the dump goes back to the dump
        action.sa_mask = CrashHandlerMask();
        gCrashReport = report;
        crash.earlier = current;
        crash.isInstalled = sigaction(crash.number, &action, nullptr) == 0;
        isComplete = isComplete && crash.isInstalled;
    }
    return isComplete;
}

// Has std::terminate write the uncaught exception as an error block, which is on disk when the process aborts: its type and
// text, for a HalvikException its code and place. It also becomes the last error; the error callback is not called. Then the
// terminate handler that was in force before runs. Calling it again changes nothing.
//   threads  one at a time
inline void InstallTerminateHandler()
{
    using namespace ErrorHandlerDllDetail;
    if (gEarlierTerminateHandler == nullptr)
    {
        StayLoaded(reinterpret_cast<void*>(HandleTerminate));
        gEarlierTerminateHandler = std::get_terminate();
        std::set_terminate(HandleTerminate);
    }
}

#pragma GCC visibility pop

// Gives the calling thread a stack for its signal handlers while the object lives: after a stack overflow there is no other
// to run on. One a thread, made and destroyed by the thread itself, as a local or thread_local object. A stack that the
// thread has already is kept when it is large enough, else it is back in force afterwards. Below the stack is a page that
// nobody may touch; memory is used only as far as the stack is.
class CrashHandlerStack
{
public:
    ERRORHANDLERDLL_LOCAL CrashHandlerStack() noexcept
    {
        const int errnoOfCaller = errno;
        Install();
        errno = errnoOfCaller;
    }
    CrashHandlerStack(const CrashHandlerStack&) = delete;
    CrashHandlerStack& operator=(const CrashHandlerStack&) = delete;
    ERRORHANDLERDLL_LOCAL ~CrashHandlerStack()
    {
        const int errnoOfCaller = errno;
        stack_t current;
        // Unless somebody put another one in its place, or this is a handler that runs on it: then the memory stays.
        if (m_memory != nullptr && sigaltstack(nullptr, &current) == 0 && current.ss_sp == m_stack &&
            sigaltstack(&m_earlier, nullptr) == 0)
        {
            munmap(m_memory, m_size);
        }
        errno = errnoOfCaller;
    }

    // Whether the thread had a stack for signals when this was made; without memory for one it may have none.
    ERRORHANDLERDLL_LOCAL bool IsInPlace() const noexcept { return m_isInPlace; }

private:
    static constexpr std::size_t kLeastRoom = 16 * 1024; // what a dump may need beyond the signal frame
    static constexpr std::size_t kRoom = 128 * 1024;     // for the handlers that follow, too, and for faults within handlers

    ERRORHANDLERDLL_LOCAL void Install() noexcept
    {
        const long frameSize = sysconf(_SC_MINSIGSTKSZ); // depends on the processor's registers
        const std::size_t frame = static_cast<std::size_t>(frameSize > 0 ? frameSize : 2048);
        const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        if (sigaltstack(nullptr, &m_earlier) != 0)
        {
            return;
        }
        m_isInPlace = (m_earlier.ss_flags & SS_DISABLE) == 0 && m_earlier.ss_size >= frame + kLeastRoom;
        if (m_isInPlace)
        {
            return;
        }
        m_size = (page + 2 * frame + kRoom + page - 1) / page * page;
        void* const memory = mmap(nullptr, m_size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
        if (memory == MAP_FAILED)
        {
            return;
        }
        stack_t stack = {};
        stack.ss_sp = static_cast<char*>(memory) + page;
        stack.ss_size = m_size - page;
        if (mprotect(stack.ss_sp, stack.ss_size, PROT_READ | PROT_WRITE) != 0 || sigaltstack(&stack, nullptr) != 0)
        {
            munmap(memory, m_size);
            return;
        }
        m_memory = memory;
        m_stack = stack.ss_sp;
        m_isInPlace = true;
    }

    void* m_memory = nullptr; // null when another stack is in use
    void* m_stack = nullptr;
    std::size_t m_size = 0;
    stack_t m_earlier = {};
    bool m_isInPlace = false;
};

#endif
