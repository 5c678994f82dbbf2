// Lookup and registration of texts. The maps themselves are defined in ErrorHandlerDll.cpp.
#include "ErrorHandlerDll/ErrorRegistry.h"

#include "ErrorHandlerDll/CheckedRaise.h"
#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/ErrorStrings.h"
#include "ErrorHandlerDll/FixedText.h"
#include "ErrorHandlerDll/LinuxStructuredException.h"
#include "ErrorHandlerDll/MessageMap.h"

#include <cstring>

namespace
{

// Hosts that check their raises go by the kinds of CheckedRaise.h and cannot see the templates. The conversions of the
// templates are %s, %d and %02x; any other is refused.
consteval bool TemplateTakes(std::string_view text, const char* kinds)
{
    for (std::size_t i = 0; i < text.size(); ++i)
    {
        if (text[i] == '%')
        {
            i += text.substr(i + 1, 2) == "02" ? 3 : 1;
            if (i >= text.size() || *kinds != text[i])
            {
                return false;
            }
            ++kinds;
        }
    }
    return *kinds == '\0';
}

consteval bool ArgumentKindsMatchTemplates()
{
    for (const ErrorString& row : gErrorStrings)
    {
        if (!TemplateTakes(row.text, ErrorArgumentKinds(static_cast<ZelvoReaderErrorCode>(row.number))))
        {
            return false;
        }
    }
    return true;
}

static_assert(ArgumentKindsMatchTemplates(), "kErrorArgumentRows must say what the templates take");

bool IsCustomCode(ZelvoReaderErrorCode code) noexcept
{
    return code >= ZR_CUSTOM_ERROR_FIRST && code <= ZR_CUSTOM_ERROR_LAST;
}

bool IsStructuredCode(ZelvoReaderErrorCode code) noexcept
{
    return static_cast<std::uint32_t>(code) > 0xC0000000u;
}

// The "%08X" that stays in the text is for whoever formats it with the fault address.
std::string_view MakeStructuredText(ZelvoReaderErrorCode code, char (&text)[kStructuredTextSize]) noexcept
{
    FormatFixedText(text, sizeof text, "%s (%08x) occurred at %%08X", StructuredException::GetExceptionName(code),
                    static_cast<std::uint32_t>(code));
    return text;
}

ZelvoReaderErrorCode CopyText(std::string_view text, char* buffer, int* length) noexcept
{
    const int available = *length;
    const std::size_t needed = text.size() + 1;
    *length = static_cast<int>(needed);
    if (available < 0 || static_cast<std::size_t>(available) < needed)
    {
        return ZR_ERROR_STRING_BUFFER_TOO_SMALL;
    }
    std::memcpy(buffer, text.data(), needed);
    return ZR_ERROR_NONE;
}

} // namespace

const char* GetCatalogueText(ZelvoReaderErrorCode code) noexcept
{
    return gErrorStrings[code].text.data();
}

std::string_view FindErrorText(ZelvoReaderErrorCode code, char (&structuredText)[kStructuredTextSize]) noexcept
{
    if (IsBuiltInCode(code))
    {
        const char* text = gOverriddenErrorStrings.Find(code);
        return text == nullptr ? gErrorStrings[code].text : std::string_view(text);
    }
    if (IsCustomCode(code))
    {
        const char* text = gCustomErrorStrings.Find(code);
        return text == nullptr ? kUndefinedCustomErrorText : std::string_view(text);
    }
    return IsStructuredCode(code) ? MakeStructuredText(code, structuredText) : kInvalidErrorText;
}

std::string_view FindWarningText(std::uint32_t code) noexcept
{
    return code < kWarningStringCount ? gWarningStrings[code] : kInvalidWarningText;
}

ZelvoReaderErrorCode GetErrorString(ZelvoReaderErrorCode code, char* buffer, int* length)
{
    char structuredText[kStructuredTextSize];
    return CopyText(FindErrorText(code, structuredText), buffer, length);
}

bool SetErrorMessage(ZelvoReaderErrorCode code, const char* text)
{
    return IsBuiltInCode(code) && gOverriddenErrorStrings.Set(code, text);
}

bool AddCustomErrorMessage(ZelvoReaderErrorCode code, const char* text)
{
    return IsCustomCode(code) && gCustomErrorStrings.Set(code, text);
}

bool ResetErrorMessages()
{
    gOverriddenErrorStrings.Clear();
    return true;
}

ZelvoReaderErrorCode GetWarningString(std::uint32_t code, char* buffer, int* length)
{
    return CopyText(FindWarningText(code), buffer, length);
}
