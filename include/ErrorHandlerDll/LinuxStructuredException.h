// A fatal signal held as an object, and the dump of its context. C++17 on, x86-64 Linux.
#ifndef ERRORHANDLERDLL_LINUXSTRUCTUREDEXCEPTION_H
#define ERRORHANDLERDLL_LINUXSTRUCTUREDEXCEPTION_H

#include "ErrorCodes.h"
#include "Export.h"

#include <signal.h>
#include <stdint.h>
#include <ucontext.h>

// Belongs to the host; the library only names it.
struct SignalHandlers;

// Built by the host's own signal handler (installed with SA_SIGINFO) from the handler's three arguments. It keeps copies of
// everything, so it can be copied and thrown by value.
//
// The members that dump write to the log (level ZR_LOG_ERROR, all categories) and, whether or not logging is on, to standard
// output. When one of them fails, what was thrown leaves it, and the last error is ZR_ERROR_IN_EXCEPTION_HANDLER.
//
//   signals  In a signal handler the constructor, the members that dump and ExceptionHandler::HandleStructuredException
//            (propagate false) are async-signal-safe, wherever the thread was interrupted: inside malloc, stdio, the loader
//            or this library. They take no heap, and wait for a stack for dumps and for standard output half a second each,
//            for the log and the dump of another thread a second. When they return, every line is in the file: _exit or a
//            kill -9 right after loses nothing, nor any line that was logged before; but what another thread that does not
//            leave the log in that second has begun to write is left to it.
//   calls    Whether a call stands in a signal handler is read off the stack. Elsewhere, as in a catch clause after a throw
//            out of the handler, a dump is a call like any other: it waits for the log as long as it takes. Where the
//            stack cannot be followed to its end, the call is taken for one in a signal handler.
//   stack    They run on a stack of the library. An alternate stack (sigaltstack) must have room for the signal frame and
//            4 KiB, this object included; a handler that does more needs more. sysconf(_SC_MINSIGSTKSZ) tells the frame's
//            size. Hosts of Clang need 3 KiB more unless they link with -z now.
//   faults   A fault inside a dump (a corrupt process) reaches the host's handler again if that has SA_NODEFER: the
//            StructuredException that it builds goes back to the dump under way, which says so and goes on. Built there for
//            a signal that somebody has sent, it holds the signal but no dump and no frames.
//   jumps    A handler or an error callback may leave by a jump or a throw; nothing stays held. A handler that jumps out of
//            a fault inside a dump without building an object keeps the log from other threads for two seconds, and has no
//            alternate stack until the thread's next dump.
//   returns  Code of this library in which a hardware fault has struck never goes on: the call is over when the dump is
//            written, and a handler must not return to it.
//   masks    While a thread dumps, all signals wait but those of faults: SIGALRM, too, for no wait of a dump lasts.
//   order    A dump has parts: head, call stack, registers, modules. The lines of a part are written together, at its end:
//            what ends the process in the middle of one, without coming here, takes the lines of that part along.
//   output   What stdio buffers for standard output is written first. A reader who does not read is waited for half a
//            second, and not again before it has read. Where /proc is not mounted, a pipe that another process fills at
//            the same moment may block the dump.
class StructuredException
{
public:
    // Copies the arguments, captures up to 100 frames of the calling thread's stack, and writes the context dump at once.
    ERRORHANDLERDLL_API ERRORHANDLERDLL_NOPLT StructuredException(int signal, ucontext_t* context, siginfo_t* info);

    // The signal's name: "Segmentation fault", "Bus error", "Floating Point Exception", "Illegal Instruction" or "Unknown".
    ERRORHANDLERDLL_API ERRORHANDLERDLL_NOPLT const char* GetExceptionString();

    // The signal's si_code. Not a code of the catalogue, though the numbers overlap.
    ERRORHANDLERDLL_API ERRORHANDLERDLL_NOPLT ZelvoReaderErrorCode GetExceptionCode();

    // One line: name, code, fault address. Lies in one buffer of 512 bytes for the whole process, overwritten by the next
    // call on any object: copy it at once.
    ERRORHANDLERDLL_API ERRORHANDLERDLL_NOPLT char* GetErrorMessage();

    // The name of a SIGSEGV si_code ("SEGV_MAPERR", "SEGV_ACCERR"), the empty text for every other value. Never null.
    static ERRORHANDLERDLL_API const char* GetExceptionName(int code);

    // Do nothing: installing signal handlers is the host's business. Null is allowed.
    static ERRORHANDLERDLL_API void RegisterHandler(SignalHandlers* handlers);
    static ERRORHANDLERDLL_API void UnRegisterHandler(SignalHandlers* handlers);

    // The whole dump: signal, fault address, call stack, registers, modules. `functionName` heads it.
    ERRORHANDLERDLL_API ERRORHANDLERDLL_NOPLT void DumpExceptionContext(const char* functionName);

    // The parts of the dump that have a list of their own. The frames are those that the constructor captured.
    ERRORHANDLERDLL_API ERRORHANDLERDLL_NOPLT void GenerateCallStack();
    ERRORHANDLERDLL_API ERRORHANDLERDLL_NOPLT void GenerateModuleAddresses();

    // Logs 320 bytes of memory from `address` upwards as hex and characters, to the log only. Any address will do: a byte
    // that cannot be read shows as "??".
    ERRORHANDLERDLL_API ERRORHANDLERDLL_NOPLT void GenerateStackDump(unsigned char* address);

private:
    static constexpr int kMaxFrames = 100;

    ucontext_t m_context;
    siginfo_t m_signalInfo;
    int32_t m_signal;
    void* m_stackFrames[kMaxFrames];
    int64_t m_stackFrameCount;
};

#endif
