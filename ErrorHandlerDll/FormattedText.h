// The one way to a formatted text of any length. It lies on the stack while it fits, as most do, so that reporting that
// memory has run out needs none. Within an active SignalSafeScope, where nothing may be allocated, a longer text is cut.
#ifndef ERRORHANDLERDLL_FORMATTEDTEXT_H
#define ERRORHANDLERDLL_FORMATTEDTEXT_H

#include "QV/FixedText.h"
#include "QV/SignalSafeScope.h"

#include <algorithm>
#include <cstring>
#include <memory>

class FormattedText
{
public:
    FormattedText() { m_buffer[0] = '\0'; } // the rest is not cleared, which would take longer than most lines

    // Fills the template; a template that cannot be formatted gives the empty text. The list is left unconsumed.
    //   throws std::bad_alloc for a long text only
    void Format(const char* messageTemplate, ...)
    {
        va_list arguments;
        va_start(arguments, messageTemplate);
        FormatV(messageTemplate, arguments);
        va_end(arguments);
    }
    void FormatV(const char* messageTemplate, va_list& arguments)
    {
        const std::size_t length = Fill(m_buffer, sizeof m_buffer, messageTemplate, arguments);
        if (length >= sizeof m_buffer && !QV::SignalSafeScope::IsActive())
        {
            m_longText.reset(new char[length + 1]);
            Fill(m_longText.get(), length + 1, messageTemplate, arguments); // an argument may have changed meanwhile
        }
    }

    char* GetData() { return m_longText ? m_longText.get() : m_buffer; }
    std::string_view GetText() { return {GetData(), m_length}; }

private:
    // Returns the length of the whole text; m_length is that of what fits.
    std::size_t Fill(char* text, std::size_t size, const char* messageTemplate, va_list& arguments)
    {
        const auto length = static_cast<std::size_t>(std::max(FormatTemplateV(text, size, messageTemplate, arguments), 0));
        m_length = length < size ? length : std::strlen(text);
        return length;
    }

    char m_buffer[1024];
    std::size_t m_length = 0;
    std::unique_ptr<char[]> m_longText;
};

#endif
