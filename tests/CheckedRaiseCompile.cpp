// Must not compile: a number where the template takes a text.
#include "ErrorHandlerDll/CheckedRaise.h"

void RaiseWithWrongArguments()
{
    RaiseCheckedError<ZR_ERROR_FILE_NOT_FOUND>("at", 1);
}
