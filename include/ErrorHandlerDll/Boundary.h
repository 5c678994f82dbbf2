// Boundaries, where an exception stops being C++ and becomes an error that is recorded, logged and reported once: the whole
// ladder of catch clauses, written once. Optional; everything is in this header. C++17 on.
//
//   extern "C" int ReadPage(int page)
//   {
//       return AtBoundary("ReadPage() - ", [&] { Scan(page); });
//   }
//
// What the body throws goes to the handler of ExceptionHandler for its kind, and then has a code:
//   HalvikException*    its own, the exception is deleted
//   StructuredException ZR_ERROR_SYSTEM: its own code is a signal's
//   std::bad_alloc      ZR_ERROR_MEMORY_ALLOCATION
//   all others          ZR_ERROR_UNKNOWN
// When the handling fails, because the error callback throws or memory runs out, it is ZR_ERROR_IN_EXCEPTION_HANDLER.
//   name    heads the log lines, so it ends in " - ": ZR_HERE of Log.h is one
//   throws  nothing, but the unwinding of a thread that is cancelled or calls pthread_exit passes
//   threads any thread; the last error is one for the process, so take code and text from here
#ifndef ERRORHANDLERDLL_BOUNDARY_H
#define ERRORHANDLERDLL_BOUNDARY_H

#include "ErrorHandlerDll.h"
#include "ExceptionHandler.h"
#include "HalvikException.h"
#include "LinuxStructuredException.h"

#include <cxxabi.h>
#include <exception>
#include <new>
#include <type_traits>

// Hidden: each shared object keeps its own copy, as several in a process may have been built with different versions of this
// header.
#pragma GCC visibility push(hidden)

// What unwinds a cancelled thread is no object: the undefined behaviour sanitizer would complain of the reference to it.
#define ERRORHANDLERDLL_CATCHES_UNWINDING __attribute__((no_sanitize("undefined")))

namespace ErrorHandlerDllDetail
{

class ExceptionOwner
{
public:
    explicit ExceptionOwner(HalvikException* exception) : m_exception(exception) {}
    ExceptionOwner(const ExceptionOwner&) = delete;
    ExceptionOwner& operator=(const ExceptionOwner&) = delete;
    ~ExceptionOwner() { delete m_exception; }

    void Release() { m_exception = nullptr; }

private:
    HalvikException* m_exception;
};

template <class Handle>
ERRORHANDLERDLL_CATCHES_UNWINDING bool Succeeds(const Handle& handle)
{
    try
    {
        handle();
        return true;
    }
    catch (abi::__forced_unwind&)
    {
        throw;
    }
    catch (HalvikException* exception)
    {
        delete exception;
        return false;
    }
    catch (...)
    {
        return false;
    }
}

template <class Handle, class OnError>
auto HandleAndReport(const Handle& handle, const OnError& onError, ZelvoReaderErrorCode code, const char* text)
    -> decltype(onError(code, text))
{
    return Succeeds(handle)
               ? onError(code, text)
               : onError(ZR_ERROR_IN_EXCEPTION_HANDLER, "An exception was raised within the exception handler.");
}

// The ladder. The most special clause comes first: std::bad_alloc derives from std::exception.
template <class Body, class OnError>
ERRORHANDLERDLL_CATCHES_UNWINDING auto RunAtBoundary(const char* name, Body& body, const OnError& onError)
    -> decltype(onError(ZR_ERROR_NONE, static_cast<const char*>(nullptr)))
{
    constexpr const char* kUnknown = "An unknown error occurred";
    try
    {
        return body();
    }
    catch (abi::__forced_unwind&)
    {
        throw;
    }
    catch (HalvikException* exception)
    {
        if (exception == nullptr)
        {
            return HandleAndReport([&] { ExceptionHandler::HandleUnknownException(name, false); }, onError, ZR_ERROR_UNKNOWN,
                                   kUnknown);
        }
        const ExceptionOwner owner(exception);
        return HandleAndReport([&] { ExceptionHandler::HandleHalvikException(name, exception); }, onError,
                               exception->GetErrorCode(), exception->GetErrorString());
    }
    catch (StructuredException& exception)
    {
        return HandleAndReport([&] { ExceptionHandler::HandleStructuredException(name, exception, false); }, onError,
                               ZR_ERROR_SYSTEM, exception.GetExceptionString());
    }
    catch (std::bad_alloc& exception)
    {
        return HandleAndReport([&] { ExceptionHandler::HandleBadAllocException(name, exception, false); }, onError,
                               ZR_ERROR_MEMORY_ALLOCATION, exception.what());
    }
    catch (std::exception& exception)
    {
        return HandleAndReport([&] { ExceptionHandler::HandleSTDException(name, exception, false); }, onError,
                               ZR_ERROR_UNKNOWN, exception.what());
    }
    catch (...)
    {
        return HandleAndReport([&] { ExceptionHandler::HandleUnknownException(name, false); }, onError, ZR_ERROR_UNKNOWN,
                               kUnknown);
    }
}

// What `onError` of AtBoundaryOr makes of an error: it is a function of code and text, of the code, or a value.
template <class Result, class OnError>
Result MakeResult(const OnError& onError, ZelvoReaderErrorCode code, const char* text)
{
    if constexpr (std::is_invocable_v<const OnError&, ZelvoReaderErrorCode, const char*>)
    {
        return static_cast<Result>(onError(code, text));
    }
    else if constexpr (std::is_invocable_v<const OnError&, ZelvoReaderErrorCode>)
    {
        return static_cast<Result>(onError(code));
    }
    else
    {
        return static_cast<Result>(onError);
    }
}

} // namespace ErrorHandlerDllDetail

// Runs `body`, a function without parameters; nothing that it throws leaves.
//   returns the code of the error, ZR_ERROR_NONE when nothing was thrown. What the body returns is dropped.
template <class Body>
ZelvoReaderErrorCode AtBoundary(const char* name, Body&& body)
{
    static_assert(!std::is_same_v<decltype(body()), ZelvoReaderErrorCode>,
                  "a code that the body returns would be dropped: use AtBoundaryOr");
    const auto run = [&body]
    {
        static_cast<void>(body());
        return ZR_ERROR_NONE;
    };
    return ErrorHandlerDllDetail::RunAtBoundary(name, run, [](ZelvoReaderErrorCode code, const char*) { return code; });
}

// The same for functions that return something else than a code: returns what `body` returns, or, after an error, what
// `onError` gives.
//   onError  a value (AtBoundaryOr(ZR_HERE, nullptr, ...)), or a function of the code, or of the code and the text of the
//            error: a HalvikException's text, a signal's name, else what(). The text is valid during the call only. What the
//            function throws leaves.
template <class OnError, class Body>
auto AtBoundaryOr(const char* name, const OnError& onError, Body&& body) -> decltype(body())
{
    using Result = decltype(body());
    return ErrorHandlerDllDetail::RunAtBoundary(name, body,
                                                [&onError](ZelvoReaderErrorCode code, const char* text) -> Result
                                                { return ErrorHandlerDllDetail::MakeResult<Result>(onError, code, text); });
}

// The boundary of a function that other parts of the host call: returns what `body` returns. What it throws is reported
// here, where it is still known, and goes on as a HalvikException* that is marked handled: further boundaries log it as
// propagating. Whoever catches it last deletes it.
//   throws  HalvikException*, or what the handler throws, see ExceptionHandler
template <class Body>
ERRORHANDLERDLL_CATCHES_UNWINDING auto AtInnerBoundary(const char* name, Body&& body) -> decltype(body())
{
    try
    {
        return body();
    }
    catch (abi::__forced_unwind&)
    {
        throw;
    }
    catch (HalvikException* exception)
    {
        if (exception == nullptr)
        {
            throw ExceptionHandler::HandleUnknownException(name, true);
        }
        ErrorHandlerDllDetail::ExceptionOwner owner(exception); // the handler may throw
        ExceptionHandler::HandleHalvikException(name, exception);
        owner.Release();
        throw;
    }
    catch (StructuredException& exception)
    {
        // Not the handler's own exception: that one has the code of the signal, which may be 0.
        ExceptionHandler::HandleStructuredException(name, exception, false);
        const auto passedOn = new HalvikException(ZR_ERROR_SYSTEM, exception.GetErrorMessage(), name);
        passedOn->SetHandled();
        throw passedOn;
    }
    catch (std::bad_alloc& exception)
    {
        throw ExceptionHandler::HandleBadAllocException(name, exception, true);
    }
    catch (std::exception& exception)
    {
        throw ExceptionHandler::HandleSTDException(name, exception, true);
    }
    catch (...)
    {
        throw ExceptionHandler::HandleUnknownException(name, true);
    }
}

#pragma GCC visibility pop

#endif
