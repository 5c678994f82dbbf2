// Texts that the host registers for codes. Not locked: the host registers before other threads look up.
#ifndef ERRORHANDLERDLL_MESSAGEMAP_H
#define ERRORHANDLERDLL_MESSAGEMAP_H

#include "ErrorHandlerDll/ErrorCodes.h"

#include <climits>
#include <cstring>
#include <map>

class MessageMap
{
public:
    MessageMap() { ++s_liveMaps; }
    MessageMap(const MessageMap&) = delete;
    MessageMap& operator=(const MessageMap&) = delete;
    ~MessageMap() { --s_liveMaps; }

    // The text of `code`, null when there is none.
    const char* Find(ZelvoReaderErrorCode code) const noexcept
    {
        if (!AreUsable() || m_texts.empty())
        {
            return nullptr;
        }
        const auto entry = m_texts.find(code);
        return entry == m_texts.end() ? nullptr : entry->second;
    }

    // Keeps the pointer, not a copy. Returns false for a null text, and for one whose size with its NUL is no int.
    bool Set(ZelvoReaderErrorCode code, const char* text)
    {
        if (!AreUsable() || text == nullptr || std::strlen(text) >= INT_MAX)
        {
            return false;
        }
        m_texts.insert_or_assign(code, text);
        return true;
    }

    void Clear() noexcept
    {
        if (AreUsable())
        {
            m_texts.clear();
        }
    }

private:
    // Static objects of the host may raise before the maps are constructed and after they are destroyed; they then get the
    // catalogue's texts. The count lies outside the maps, where it may be read at any time.
    static bool AreUsable() noexcept { return s_liveMaps == kMaps; }

    static constexpr int kMaps = 2;
    static inline constinit int s_liveMaps = 0;

    std::map<ZelvoReaderErrorCode, const char*> m_texts;
};

// Texts of custom codes, and texts that replace those of built-in codes; defined in ErrorHandlerDll.cpp, where the order of
// construction matters.
extern MessageMap gCustomErrorStrings;
extern MessageMap gOverriddenErrorStrings;

#endif
