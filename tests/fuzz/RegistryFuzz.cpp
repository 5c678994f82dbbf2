// Registrations and lookups in any order against a plain map.
#include "FuzzLog.h"

#include <algorithm>
#include <cstring>
#include <fuzzer/FuzzedDataProvider.h>
#include <map>
#include <memory>

namespace
{

constexpr unsigned int kLastBuiltIn = 195;

std::string Lookup(unsigned int code)
{
    int length = 0;
    FUZZ_CHECK(GetErrorString(static_cast<ZelvoReaderErrorCode>(code), nullptr, &length) ==
               ZR_ERROR_STRING_BUFFER_TOO_SMALL);
    std::string text(static_cast<std::size_t>(length), '?');
    FUZZ_CHECK(GetErrorString(static_cast<ZelvoReaderErrorCode>(code), text.data(), &length) == ZR_ERROR_NONE);
    FUZZ_CHECK(text.back() == '\0' && std::strlen(text.c_str()) + 1 == text.size());
    text.pop_back();
    return text;
}

// Texts without any registration; each code is looked up before its first.
std::string Original(unsigned int code)
{
    static std::map<unsigned int, std::string> originals;
    const auto known = originals.find(code);
    if (known != originals.end())
    {
        return known->second;
    }
    ResetErrorMessages();
    return originals[code] = Lookup(code);
}

unsigned int Code(FuzzedDataProvider& data)
{
    switch (data.ConsumeIntegralInRange(0, 3))
    {
    case 0:
        return data.ConsumeIntegralInRange(0u, 220u);
    case 1:
        return data.ConsumeIntegralInRange(0xFFF0u, 0x10020u);
    case 2:
        return data.ConsumeIntegralInRange(0x1FFF0u, 0x20010u);
    default:
        return data.ConsumeIntegral<unsigned int>();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size)
{
    // The library keeps the pointers: those of custom texts for the life of the process.
    using Texts = std::map<unsigned int, std::unique_ptr<const std::string>>;
    static Texts custom;
    static Texts overridden;
    for (unsigned int code = 0; code <= kLastBuiltIn; ++code)
    {
        Original(code);
    }
    ResetErrorMessages();
    overridden.clear();
    FuzzedDataProvider data(bytes, size);
    while (data.remaining_bytes() > 0)
    {
        const unsigned int code = Code(data);
        const bool isBuiltIn = code <= kLastBuiltIn;
        const bool isCustom = code >= 0x10000 && code <= 0x1FFFF;
        const int action = data.ConsumeIntegralInRange(0, 9);
        if (action == 0)
        {
            FUZZ_CHECK(ResetErrorMessages());
            overridden.clear();
        }
        else if (action < 4)
        {
            std::string text = data.ConsumeRandomLengthString(700);
            std::replace(text.begin(), text.end(), '\0', '0');
            auto kept = std::make_unique<const std::string>(text);
            FUZZ_CHECK(SetErrorMessage(static_cast<ZelvoReaderErrorCode>(code), kept->c_str()) == isBuiltIn);
            FUZZ_CHECK(AddCustomErrorMessage(static_cast<ZelvoReaderErrorCode>(code), kept->c_str()) == isCustom);
            FUZZ_CHECK(!SetErrorMessage(static_cast<ZelvoReaderErrorCode>(code), nullptr));
            if (isBuiltIn || isCustom)
            {
                (isBuiltIn ? overridden : custom)[code] = std::move(kept);
            }
        }
        const std::string found = Lookup(code);
        if (isBuiltIn)
        {
            FUZZ_CHECK(found == (overridden.count(code) != 0 ? *overridden[code] : Original(code)));
        }
        else if (isCustom)
        {
            FUZZ_CHECK(found == (custom.count(code) != 0 ? *custom[code] : "Undefined custom error code"));
        }
        else
        {
            FUZZ_CHECK(code > 0xC0000000u ? found.find("occurred at %08X") != std::string::npos
                                          : found == "Invalid error code");
        }
        char buffer[600];
        std::memset(buffer, '?', sizeof buffer);
        int length = data.ConsumeIntegralInRange(-2, static_cast<int>(sizeof buffer));
        const bool fits = length > static_cast<int>(found.size());
        FUZZ_CHECK((GetErrorString(static_cast<ZelvoReaderErrorCode>(code), buffer, &length) == ZR_ERROR_NONE) == fits);
        FUZZ_CHECK(length == static_cast<int>(found.size()) + 1);
        FUZZ_CHECK(fits ? found == buffer : buffer[0] == '?');
    }
    return 0;
}
