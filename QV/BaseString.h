// The owned string of the library: length-counted, NUL-terminated, never null, no spare capacity. A string is used by one
// thread at a time; strings that several threads reach are guarded by their owner's lock.
#ifndef QV_BASESTRING_H
#define QV_BASESTRING_H

#include "QV/Memory.h"
#include "QV/Str.h"

#include <climits>
#include <cstdarg>
#include <cstddef>
#include <new>
#include <string>
#include <string_view>
#include <utility>

namespace QV
{

template <typename Char>
class BaseString
{
public:
    using View = std::basic_string_view<Char>;

    BaseString() : m_data(Allocate(0)) { m_data[0] = Char(); }
    BaseString(const Char* text) : BaseString(text == nullptr ? View() : View(text)) {}
    explicit BaseString(View text) : m_data(Allocate(text.size())), m_length(static_cast<int>(text.size()))
    {
        Copy(m_data, text);
        m_data[m_length] = Char();
    }
    BaseString(const BaseString& other) : BaseString(View(other)) {}
    virtual ~BaseString() { Memory::Free(m_data); }

    // The new buffer is made before the old one goes, so that a failing allocation leaves the string as it was.
    BaseString& operator=(const BaseString& other)
    {
        if (this != &other)
        {
            BaseString copy(other);
            Swap(copy);
        }
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
        BaseString result(OfLength{static_cast<std::size_t>(length > 0 ? length : 0)});
        if (length > 0)
        {
            Str::FormatArgs(result.m_data, static_cast<std::size_t>(length) + 1, format, arguments);
            result.Remeasure(); // another thread may have shortened an argument between the passes
        }
        return result;
    }

    // Gives the memory back for good. Afterwards the string may only be filled anew or destroyed.
    void Release() noexcept
    {
        Memory::Free(m_data);
        m_data = nullptr;
        m_length = 0;
    }

    // Takes the length from the NUL. For a reader that may have interrupted an assignment, between its buffer and its
    // length.
    void Remeasure() { m_length = m_data == nullptr ? 0 : static_cast<int>(View(m_data).size()); }

    // A string of several parts, allocated once.
    template <typename... Parts>
    static BaseString Join(const Parts&... parts)
    {
        const View views[] = {View(parts)...};
        std::size_t length = 0;
        for (const View& view : views)
        {
            length += view.size();
        }
        BaseString result(OfLength{length});
        Char* out = result.m_data;
        for (const View& view : views)
        {
            Copy(out, view);
            out += view.size();
        }
        return result;
    }

    int GetLength() const { return m_length; }
    const Char* GetData() const { return m_data; }
    operator View() const { return View(m_data, static_cast<std::size_t>(m_length)); }

private:
    struct OfLength
    {
        std::size_t length;
    };

    // A string whose characters the caller fills: one allocation, where an empty string made longer would take two.
    explicit BaseString(OfLength size) : m_data(Allocate(size.length)), m_length(static_cast<int>(size.length))
    {
        m_data[m_length] = Char();
    }

    // Lengths are signed 32-bit counts; a longer text cannot be kept, which to the caller is memory that cannot be had.
    static Char* Allocate(std::size_t length)
    {
        if (length >= static_cast<std::size_t>(INT_MAX))
        {
            throw std::bad_alloc();
        }
        return static_cast<Char*>(Memory::Allocate((length + 1) * sizeof(Char)));
    }
    void AppendView(View text)
    {
        if (!text.empty())
        {
            BaseString joined = Join(*this, text);
            Swap(joined);
        }
    }
    void Swap(BaseString& other)
    {
        std::swap(m_data, other.m_data);
        std::swap(m_length, other.m_length);
    }
    static void Copy(Char* destination, View text) { std::char_traits<Char>::copy(destination, text.data(), text.size()); }

    Char* m_data;
    int m_length = 0;
};

} // namespace QV

#endif
