#include "HostErrors.h"

#include <ErrorHandlerDll/ExceptionHandler.h>

#include <cstdarg>

namespace HostErrors
{
namespace
{

// Callbacks run in the middle of error handling: they do little, and throw nothing.
void CountError(ZelvoReaderErrorCode, char*, void* param)
{
    ++static_cast<Reported*>(param)->errors;
}

void CountWarning(uint32_t, char*, void* param)
{
    ++static_cast<Reported*>(param)->warnings;
}

} // namespace

void RaiseCustomError(ZelvoReaderErrorCode code, const char* location, ...)
{
    va_list arguments;
    va_start(arguments, location);
    try
    {
        RaiseErrorVar(code, location, arguments);
    }
    catch (...)
    {
        va_end(arguments);
        throw;
    }
}

void Register(Reported& reported)
{
    // The library keeps the pointer: literals stay valid.
    AddCustomErrorMessage(kWrongCheckDigit, "Check digit of the %s is wrong - found %c, calculated %d");
    ExceptionHandler::SetErrorCallback(CountError, &reported);
    SetWarningCallback(CountWarning, &reported);
}

} // namespace HostErrors
