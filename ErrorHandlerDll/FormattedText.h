// The one way to a formatted text of any length: on the stack while it fits, as most do, so that reporting that memory has
// run out needs none. In an emergency, which has no heap, a longer one is cut.
#ifndef ERRORHANDLERDLL_FORMATTEDTEXT_H
#define ERRORHANDLERDLL_FORMATTEDTEXT_H

#include "ErrorHandlerDll/FixedText.h"
#include "QV/SignalSafeScope.h"

#include <algorithm>
#include <cstring>
#include <memory>

class FormattedText
{
public:
    FormattedText() { m_buffer[0] = '\0'; } // the rest is not cleared: a line should not pay for a kilobyte of zeros

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
        const int length = FormatTemplateV(m_buffer, sizeof m_buffer, messageTemplate, arguments);
        m_length = static_cast<std::size_t>(std::max(length, 0));
        if (m_length < sizeof m_buffer)
        {
            return;
        }
        if (QV::SignalSafeScope::IsActive())
        {
            m_length = std::strlen(m_buffer);
            return;
        }
        // Another thread may change an argument between the passes.
        m_longText.reset(new char[m_length + 1]);
        const int again = FormatTemplateV(m_longText.get(), m_length + 1, messageTemplate, arguments);
        m_length =
            static_cast<std::size_t>(again) > m_length ? std::strlen(m_longText.get()) : static_cast<std::size_t>(again);
    }

    char* GetData() { return m_longText ? m_longText.get() : m_buffer; }
    std::string_view GetText() { return {GetData(), m_length}; }

private:
    char m_buffer[1024];
    std::size_t m_length = 0;
    std::unique_ptr<char[]> m_longText;
};

#endif
