// The errors and warnings of this host: its custom codes, how they are raised, and how often any was reported.
#pragma once

#include <ErrorHandlerDll/ErrorHandlerDll.h>

#include <atomic>

namespace HostErrors
{

// Template arguments: const char* field, int character found, int digit calculated.
constexpr auto kWrongCheckDigit = static_cast<ZelvoReaderErrorCode>(ZR_CUSTOM_ERROR_FIRST + 0);

// Raises a custom code with its registered text: RaiseError knows the texts of built-in codes only. The arguments must fit
// the text, as with printf.
[[noreturn]] void RaiseCustomError(ZelvoReaderErrorCode code, const char* location, ...);

// Written by the callbacks, on any thread.
struct Reported
{
    std::atomic<unsigned int> errors = 0;
    std::atomic<unsigned int> warnings = 0;
};

// Registers texts and callbacks. Call it before other threads use the library; `reported` outlives them.
void Register(Reported& reported);

} // namespace HostErrors
