// A formatted text of any length: on the stack while it fits, as most do, so that reporting that memory has run out needs
// none.
#ifndef ERRORHANDLERDLL_FORMATTEDTEXT_H
#define ERRORHANDLERDLL_FORMATTEDTEXT_H

#include "ErrorHandlerDll/FixedText.h"

#include <memory>

class FormattedText
{
public:
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
        const int length = FormatTemplateV(m_buffer, kBufferSize, messageTemplate, arguments);
        if (length >= static_cast<int>(kBufferSize))
        {
            const std::size_t size = static_cast<std::size_t>(length) + 1;
            m_longText.reset(new char[size]);
            FormatTemplateV(m_longText.get(), size, messageTemplate, arguments);
        }
    }

    char* GetData() { return m_longText ? m_longText.get() : m_buffer; }

private:
    static constexpr std::size_t kBufferSize = 1024;

    char m_buffer[kBufferSize]; // not cleared: a warning should not pay for a kilobyte of zeros
    std::unique_ptr<char[]> m_longText;
};

#endif
