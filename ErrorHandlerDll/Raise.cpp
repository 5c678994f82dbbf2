// Raising: code to text, text and arguments to message, throw. The throw stands in the exported functions themselves, and
// their frames hold nothing that has a destructor: unwinding one costs half as much again as the throw.
#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/ErrorRegistry.h"
#include "ErrorHandlerDll/FixedText.h"
#include "ErrorHandlerDll/HalvikException.h"

namespace
{

// The message is cut to its field anyway: one pass into as many bytes will do, however long template and text are.
void FormatMessage(ErrorText& message, ZelvoReaderErrorCode code, va_list& arguments) noexcept
{
    char structuredText[kStructuredTextSize];
    FormatTemplateV(message, sizeof message, FindErrorText(code, structuredText).data(), arguments);
}

void FormatUnknownCodeMessage(ErrorText& message, ZelvoReaderErrorCode code) noexcept
{
    char structuredText[kStructuredTextSize];
    FormatTemplate(message, sizeof message, FindErrorText(ZR_ERROR_UNKNOWN_CODE, structuredText).data(),
                   static_cast<int>(code));
}

} // namespace

void RaiseError(ZelvoReaderErrorCode code, const char* location, ...)
{
    ErrorText message;
    if (IsBuiltInCode(code))
    {
        va_list arguments;
        va_start(arguments, location);
        FormatMessage(message, code, arguments);
        va_end(arguments);
    }
    else
    {
        FormatUnknownCodeMessage(message, code);
    }
    throw new HalvikException(code, message, location);
}

void RaiseErrorVar(ZelvoReaderErrorCode code, const char* location, va_list arguments)
{
    ErrorText message;
    va_list copy; // a list that is a parameter is a pointer, and the helpers take the list itself
    va_copy(copy, arguments);
    FormatMessage(message, code, copy);
    va_end(copy);
    throw new HalvikException(code, message, location);
}
