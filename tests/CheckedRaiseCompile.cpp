// Must not compile: a number where the template takes a text.
#include "ErrorHandlerDll/CheckedRaise.h"

void (*const gRaiseWithWrongArguments)(const char*, int) = RaiseCheckedError<ZR_ERROR_FILE_NOT_FOUND, int>;
