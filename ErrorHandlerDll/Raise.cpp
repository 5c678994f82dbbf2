// Raising: code to text, text and arguments to message, throw. The throw stands in the exported functions themselves, and
// the unwinder finds next to nothing to do in their frames:
//   - Nothing is left to destroy, not even the memory of a half-made object, so that it reads no table of clean-ups. The
//     object is finished before the throw, and its constructor is noexcept.
//   - Few registers are saved that it must restore. What needs more of them is a function apart.
#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/ErrorRegistry.h"
#include "ErrorHandlerDll/FormattedText.h"
#include "ErrorHandlerDll/HalvikException.h"

namespace
{

// A code without a text of its own gets the text of the unknown code, and the arguments are left alone. The exception cuts
// the message to its field.
[[gnu::noinline]] HalvikException* MakeException(ZelvoReaderErrorCode code, const char* location, va_list& arguments,
                                                 bool hasText)
{
    char structuredText[kStructuredTextSize];
    const char* const text = FindErrorText(hasText ? code : ZR_ERROR_UNKNOWN_CODE, structuredText).data();
    FormattedText message;
    hasText ? message.FormatV(text, arguments) : message.Format(text, static_cast<int>(code));
    return new HalvikException(code, message.GetData(), location);
}

} // namespace

void RaiseError(ZelvoReaderErrorCode code, const char* location, ...)
{
    va_list arguments;
    va_start(arguments, location);
    HalvikException* const exception = MakeException(code, location, arguments, IsBuiltInCode(code));
    va_end(arguments);
    throw exception;
}

void RaiseErrorVar(ZelvoReaderErrorCode code, const char* location, va_list arguments)
{
    va_list copy; // a list that is a parameter is a pointer, and the helpers take the list itself
    va_copy(copy, arguments);
    HalvikException* const exception = MakeException(code, location, copy, true);
    va_end(copy);
    throw exception;
}
