// Boundaries for the functions of a host: where exceptions become errors that are recorded, logged and reported once.
// Made to be copied; docs/boundaries.md explains it.
#pragma once

#include <ErrorHandlerDll/ErrorHandlerDll.h>
#include <ErrorHandlerDll/ExceptionHandler.h>
#include <ErrorHandlerDll/HalvikException.h>
#include <ErrorHandlerDll/LinuxStructuredException.h>

#include <cstdio>
#include <exception>
#include <memory>
#include <mutex>
#include <new>

namespace Boundary
{

using OwnedException = std::unique_ptr<HalvikException>;

// What is left of an error behind the outer boundary. No heap behind the text: memory may just have run out.
struct Outcome
{
    ZelvoReaderErrorCode code = ZR_ERROR_NONE;
    char text[512] = "";
};

// The library keeps one last error for the process and does not guard it. Handled one after the other, errors of several
// threads do not mix there, and the callback gets the text of its own error. Recursive, as the callback may run boundaries.
inline std::recursive_mutex gHandling;

// To be called in catch (...): passes the current exception to its handler and returns it, marked handled. A handler may
// throw, too: what the callback throws, or std::bad_alloc.
inline OwnedException HandleCurrentException(const char* functionName)
{
    const std::lock_guard<std::recursive_mutex> lock(gHandling);
    try
    {
        throw;
    }
    catch (HalvikException* exception)
    {
        OwnedException owned(exception);
        ExceptionHandler::HandleHalvikException(functionName, exception);
        return owned;
    }
    catch (StructuredException& exception)
    {
        return OwnedException(ExceptionHandler::HandleStructuredException(functionName, exception, true));
    }
    catch (std::bad_alloc& exception)
    {
        return OwnedException(ExceptionHandler::HandleBadAllocException(functionName, exception, true));
    }
    catch (std::exception& exception)
    {
        return OwnedException(ExceptionHandler::HandleSTDException(functionName, exception, true));
    }
    catch (...)
    {
        return OwnedException(ExceptionHandler::HandleUnknownException(functionName, true));
    }
}

// Around a function that other parts of the host call: runs `body` and returns its result. Whatever it throws is reported
// here, where it is still known, and goes on as a HalvikException* that is marked handled.
//   functionName  heads the log lines, so it ends in " - "
template <typename Body>
auto Inner(const char* functionName, Body body)
{
    try
    {
        return body();
    }
    catch (...)
    {
        throw HandleCurrentException(functionName).release();
    }
}

// Around all work of a thread, a callback or a C function: nothing leaves. An error that an inner boundary has reported is
// only logged as propagating; any other one is reported now. The exception ends here and is deleted.
template <typename Body>
Outcome Outer(const char* functionName, Body body) noexcept
{
    Outcome outcome;
    try
    {
        try
        {
            body();
        }
        catch (...)
        {
            const OwnedException exception = HandleCurrentException(functionName);
            outcome.code = exception->GetErrorCode();
            std::snprintf(outcome.text, sizeof outcome.text, "%s", exception->GetErrorString());
        }
    }
    catch (...)
    {
        outcome.code = ZR_ERROR_IN_EXCEPTION_HANDLER;
        std::snprintf(outcome.text, sizeof outcome.text, "The error could not be handled");
    }
    return outcome;
}

} // namespace Boundary
