// From codes to texts, for the units that raise and handle.
#ifndef ERRORHANDLERDLL_ERRORREGISTRY_H
#define ERRORHANDLERDLL_ERRORREGISTRY_H

#include "ErrorHandlerDll/ErrorCodes.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

// Room for the text of a structured code: eight digits and the fixed part.
inline constexpr std::size_t kStructuredTextSize = 64;

inline bool IsBuiltInCode(ZelvoReaderErrorCode code) noexcept
{
    return static_cast<std::uint32_t>(code) <= ZR_ERROR_UNKNOWN_CODE;
}

// The catalogue's template of a built-in code, whatever override is set.
const char* GetCatalogueText(ZelvoReaderErrorCode code) noexcept;

// The text of any code, unformatted and NUL-terminated. `structuredText` is where the text of a structured code is made.
std::string_view FindErrorText(ZelvoReaderErrorCode code, char (&structuredText)[kStructuredTextSize]) noexcept;

// From now on every code has its text of the catalogue: at the end of the process the host's texts may be gone.
void RetireErrorTexts() noexcept;

// The template of any warning code, NUL-terminated.
std::string_view FindWarningText(std::uint32_t code) noexcept;

#endif
