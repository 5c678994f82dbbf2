// The owned string of the library: length-counted, NUL-terminated, never null, no spare capacity. A string is used by one
// thread at a time; strings that several threads reach are guarded by their owner's lock.
#ifndef QV_BASESTRING_H
#define QV_BASESTRING_H

#include "QV/Str.h"

#include <climits>
#include <cstdarg>
#include <cstddef>
#include <new>
#include <string_view>
#include <utility>

namespace QV
{

template <typename Char>
class BaseString
{
public:
    using View = std::basic_string_view<Char>;

    BaseString() : BaseString(View()) {}
    BaseString(const Char* text) : BaseString(text == nullptr ? View() : View(text)) {}
    explicit BaseString(View text) : BaseString(text, View()) {}
    BaseString(const BaseString& other) : BaseString(View(other)) {}
    virtual ~BaseString() { delete[] m_data; }

    // The new buffer is made before the old one goes, so that a failing allocation leaves the string as it was.
    BaseString& operator=(const BaseString& other)
    {
        BaseString copy(other);
        Swap(copy);
        return *this;
    }

    // Nothing to append costs no allocation.
    void Append(const BaseString& text) { AppendView(text); }
    void Append(const Char* text) { AppendView(text == nullptr ? View() : View(text)); }

    // printf-style formatting in two passes. A format that fails gives the empty string.
    [[gnu::format(printf, 1, 2)]] static BaseString Format(const char* format, ...)
    {
        va_list arguments;
        va_start(arguments, format);
        BaseString result = FormatV(format, arguments);
        va_end(arguments);
        return result;
    }
    [[gnu::format(printf, 1, 0)]] static BaseString FormatV(const char* format, va_list& arguments)
    {
        const int length = Str::GetFormattedLength(format, arguments);
        BaseString result(static_cast<std::size_t>(length > 0 ? length : 0));
        if (length > 0)
        {
            Str::FormatArgs(result.m_data, static_cast<std::size_t>(length) + 1, format, arguments);
            result.m_length = static_cast<int>(View(result.m_data).size()); // another thread may have shortened an argument
        }
        return result;
    }

    int GetLength() const { return m_length; }
    const Char* GetData() const { return m_data; }
    operator View() const { return View(m_data, static_cast<std::size_t>(m_length)); }

private:
    // A string whose characters the caller fills: one allocation, where an empty string made longer would take two. Lengths
    // are signed 32-bit counts; a longer text cannot be kept, which to the caller is memory that cannot be had.
    explicit BaseString(std::size_t length)
    {
        if (length >= static_cast<std::size_t>(INT_MAX))
        {
            throw std::bad_alloc();
        }
        m_data = new Char[length + 1];
        m_length = static_cast<int>(length);
        m_data[length] = Char();
    }
    BaseString(View first, View second) : BaseString(first.size() + second.size())
    {
        first.copy(m_data, first.size());
        second.copy(m_data + first.size(), second.size());
    }

    void AppendView(View text)
    {
        if (!text.empty())
        {
            BaseString joined(*this, text);
            Swap(joined);
        }
    }
    void Swap(BaseString& other)
    {
        std::swap(m_data, other.m_data);
        std::swap(m_length, other.m_length);
    }

    Char* m_data = nullptr;
    int m_length = 0;
};

} // namespace QV

#endif
