// Lookup and registration of texts.
#include "ErrorHandlerDll/ErrorRegistry.h"

#include "ErrorHandlerDll/CheckedRaise.h"
#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/ErrorStrings.h"
#include "QV/FixedText.h"

#include <atomic>
#include <climits>
#include <cstring>

namespace
{

// The texts that hosts have registered, by code; null where there is none. Arrays need no construction and no memory of
// their own: static objects of the host may raise and register before any code of the library has run, and no registration
// fails. Of the many custom codes only the pages in use cost memory. Not locked: the host registers before other threads
// look up.
const char* gOverriddenErrorStrings[std::size(gErrorStrings)];
const char* gCustomErrorStrings[ZR_CUSTOM_ERROR_LAST - ZR_CUSTOM_ERROR_FIRST + 1];
constinit std::atomic<bool> gIsRetired = false; // other threads may still raise at the end of the process

// Hosts that check their raises go by the kinds of CheckedRaise.h and cannot see the templates. Only %s, %d and %02x are
// allowed in a template: any other conversion is refused here.
consteval bool KindsMatchTemplate(const ErrorString& row)
{
    char kinds[10] = "";
    std::size_t count = 0;
    for (std::size_t at = row.text.find('%'); at != row.text.npos; at = row.text.find('%', at))
    {
        at += row.text.substr(at + 1, 2) == "02" ? 3 : 1;
        kinds[count++] = row.text.at(at);
    }
    return std::string_view(kinds) == ErrorArgumentKinds(row.code);
}

static_assert(std::ranges::all_of(gErrorStrings, KindsMatchTemplate), "kErrorArgumentRows must say what the templates take");

// Where the text that the host registers for a custom code is kept; null for any other code.
const char** FindCustomText(ZelvoReaderErrorCode code) noexcept
{
    const bool isCustom = code >= ZR_CUSTOM_ERROR_FIRST && code <= ZR_CUSTOM_ERROR_LAST;
    return isCustom ? &gCustomErrorStrings[code - ZR_CUSTOM_ERROR_FIRST] : nullptr;
}

// Keeps the pointer, not a copy. The size of a text, its NUL included, must be an int.
bool Register(const char*& place, const char* text) noexcept
{
    if (gIsRetired || text == nullptr || std::strlen(text) >= INT_MAX)
    {
        return false;
    }
    place = text;
    return true;
}

std::string_view GetRegistered(const char* text, std::string_view fallback) noexcept
{
    return text == nullptr || gIsRetired ? fallback : std::string_view(text);
}

ZelvoReaderErrorCode CopyText(std::string_view text, char* buffer, int* length) noexcept
{
    const int available = *length;
    *length = static_cast<int>(text.size() + 1);
    if (available < *length)
    {
        return ZR_ERROR_STRING_BUFFER_TOO_SMALL;
    }
    std::memcpy(buffer, text.data(), text.size() + 1);
    return ZR_ERROR_NONE;
}

} // namespace

void RetireErrorTexts() noexcept
{
    gIsRetired = true;
}

const char* GetCatalogueText(ZelvoReaderErrorCode code) noexcept
{
    return gErrorStrings[code].text.data();
}

std::string_view FindErrorText(ZelvoReaderErrorCode code, char (&structuredText)[kStructuredTextSize]) noexcept
{
    if (IsBuiltInCode(code))
    {
        return GetRegistered(gOverriddenErrorStrings[code], gErrorStrings[code].text);
    }
    if (const char* const* const text = FindCustomText(code))
    {
        return GetRegistered(*text, kUndefinedCustomErrorText);
    }
    if (static_cast<std::uint32_t>(code) <= 0xC0000000u)
    {
        return kInvalidErrorText;
    }
    // The name that belongs in front of the blank is empty for all codes of this range. The "%08X" stays in the text, for
    // whoever formats it with the fault address.
    FormatFixedText(structuredText, sizeof structuredText, " (%08x) occurred at %%08X", static_cast<std::uint32_t>(code));
    return structuredText;
}

std::string_view FindWarningText(std::uint32_t code) noexcept
{
    return code < std::size(gWarningStrings) ? gWarningStrings[code] : kInvalidWarningText;
}

ZelvoReaderErrorCode GetErrorString(ZelvoReaderErrorCode code, char* buffer, int* length)
{
    char structuredText[kStructuredTextSize];
    return CopyText(FindErrorText(code, structuredText), buffer, length);
}

bool SetErrorMessage(ZelvoReaderErrorCode code, const char* text)
{
    return IsBuiltInCode(code) && Register(gOverriddenErrorStrings[code], text);
}

bool AddCustomErrorMessage(ZelvoReaderErrorCode code, const char* text)
{
    const char** const place = FindCustomText(code);
    return place != nullptr && Register(*place, text);
}

bool ResetErrorMessages()
{
    std::ranges::fill(gOverriddenErrorStrings, nullptr);
    return true;
}

ZelvoReaderErrorCode GetWarningString(std::uint32_t code, char* buffer, int* length)
{
    return CopyText(FindWarningText(code), buffer, length);
}
