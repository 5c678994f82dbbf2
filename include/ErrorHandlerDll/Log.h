// What hosts write around the logging functions: the place of a call, lines with a compile-time level, a va_list form, lines
// that come once or every nth time, function traces, std::format. Optional; everything is in this header. From C11 and
// C++17.
//
//   ZR_LOG(ZR_LOG_WARNING, 1, "page %d is skewed by %.1f degrees", page, skew);
//
//   16/11/26 15:38:45.007 - WARNING    - [ThreadID: 4711] - Reader(42) : Scan() - page 3 is skewed by 1.5 degrees
//
// Results, exceptions, threads and errno are as with LogFormatted, unless a function or macro says otherwise. The macros are
// expressions; each argument is evaluated once, or not at all when the line is left out at compile time or by a count.
#ifndef ERRORHANDLERDLL_LOG_H
#define ERRORHANDLERDLL_LOG_H

#include "ErrorHandlerDll.h"

#include <errno.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

// Calls of the macros whose level is a constant above this one leave no code, and their arguments are not evaluated. A level
// that the compiler does not know is compared at run time, so the line is not written either. Define it before the header is
// included, or for the whole build.
#ifndef ZR_LOG_COMPILED_LEVEL
#define ZR_LOG_COMPILED_LEVEL 0x7FFFFFFF
#endif

#ifdef __cplusplus
#define ERRORHANDLERDLL_INLINE inline
#define ERRORHANDLERDLL_CAST(type, value) static_cast<type>(value)
#else
#define ERRORHANDLERDLL_INLINE static inline
#define ERRORHANDLERDLL_CAST(type, value) ((type)(value))
#endif

#ifdef __cplusplus
#include <exception>
#include <string_view>
#include <type_traits>
#if __cplusplus >= 202002L && !defined(ZR_LOG_NO_FORMAT) &&                                                                 \
    __has_include(<format>) // ZR_LOG_NO_FORMAT saves time to compile
#include <version>
#if defined(__cpp_lib_format) || (defined(_LIBCPP_VERSION) && _LIBCPP_VERSION >= 170000)
#define ERRORHANDLERDLL_HAS_FORMAT
#include <format>
#endif
#endif

// Hidden: each shared object keeps its own copy, as several in a process may have been built with different versions of this
// header.
#pragma GCC visibility push(hidden)

// Parts of the macros, not to be used otherwise.
namespace ErrorHandlerDllDetail
{

constexpr bool IsNamePart(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '$' || c == '~' ||
           static_cast<unsigned char>(c) >= 0x80;
}

constexpr std::string_view UnitOfFile(std::string_view file)
{
    const std::size_t slash = file.rfind('/');
    const std::string_view name = slash == std::string_view::npos ? file : file.substr(slash + 1);
    const std::size_t dot = name.rfind('.');
    return dot == std::string_view::npos || dot == 0 ? name : name.substr(0, dot);
}

// Walks over what GCC and Clang print for a function, "ns::Unit<int>::Run(int)::<lambda()>": names between "::", each
// with its template arguments, parameters and qualifiers.
class PrettyName
{
public:
    constexpr explicit PrettyName(std::string_view text) : m_text(text) {}

    // The last name that somebody gave: lambdas belong to the function in which they stand.
    constexpr std::string_view LastGiven()
    {
        std::string_view last;
        bool isInLambda = false;
        while (m_at < m_text.size())
        {
            const std::string_view name = Next();
            const bool isCallOfLambda = isInLambda && name == "operator()"; // Clang prints it, GCC does not
            isInLambda = name.empty();
            last = name.empty() || isCallOfLambda ? last : name;
        }
        return last;
    }

private:
    constexpr char Peek(std::size_t ahead = 0) const { return m_at + ahead < m_text.size() ? m_text[m_at + ahead] : '\0'; }

    // The name of this part, empty for what has none; goes on behind the "::" that ends the part.
    constexpr std::string_view Next()
    {
        const std::size_t start = m_at;
        const bool isOperator = m_text.substr(m_at, 8) == "operator" && !IsNamePart(Peek(8));
        if (isOperator)
        {
            SkipOperatorName();
        }
        while (IsNamePart(Peek()))
        {
            ++m_at;
        }
        const std::string_view name = m_text.substr(start, m_at - start);
        while (m_at < m_text.size() && !(Peek() == ':' && Peek(1) == ':'))
        {
            SkipOne();
        }
        m_at += 2;
        return name;
    }

    // "operator()", "operator<", "operator std::vector<int>": up to the parameters.
    constexpr void SkipOperatorName()
    {
        m_at += 8;
        if (Peek() == '(')
        {
            m_at += 2;
            return;
        }
        const bool isConversion = Peek() == ' ';
        while (m_at < m_text.size() && Peek() != '(')
        {
            if (isConversion && Peek() == '<')
            {
                SkipOne();
            }
            else
            {
                ++m_at;
            }
        }
    }

    // One character, or all between a pair of brackets. What is in round ones may hold a '<' or '>' that is no bracket.
    constexpr void SkipOne()
    {
        int round = 0;
        int angle = 0;
        do
        {
            const char c = Peek();
            if (c == '\'')
            {
                m_at += Peek(1) == '\\' ? 3 : 2;
            }
            round += c == '(' || c == '{' ? 1 : (c == ')' || c == '}' ? -1 : 0);
            angle += round > 0 ? 0 : (c == '<' ? 1 : (c == '>' ? -1 : 0));
            ++m_at;
        } while ((round > 0 || angle > 0) && m_at < m_text.size());
    }

    std::string_view m_text;
    std::size_t m_at = 0;
};

// `pretty` is that of a member function of a class in a lambda at the place: "static ... char*
// Scan()::<lambda()>::Place::...".
constexpr std::string_view FunctionOfPlace(std::string_view pretty)
{
    const std::size_t star = pretty.find('*') + 1;
    const std::size_t end = pretty.rfind("::ErrorHandlerDllPlace::");
    const std::size_t start = star < pretty.size() && pretty[star] == ' ' ? star + 1 : star;
    const std::string_view name = PrettyName(pretty.substr(start, end - start)).LastGiven();
    return name.empty() ? std::string_view("static") : name;
}

template <std::size_t size>
struct HereText
{
    char text[size];
};

constexpr std::size_t DigitCount(unsigned int number)
{
    std::size_t digits = 1;
    for (; number > 9; number /= 10)
    {
        ++digits;
    }
    return digits;
}

template <class Place>
constexpr auto MakeHere()
{
    constexpr std::string_view unit = UnitOfFile(Place::File());
    constexpr std::string_view function = FunctionOfPlace(Place::Function());
    constexpr std::size_t digits = DigitCount(Place::Line());
    HereText<unit.size() + function.size() + digits + sizeof "() : () - "> here = {};
    std::size_t at = 0;
    const auto append = [&](std::string_view part)
    {
        for (const char c : part)
        {
            here.text[at++] = c;
        }
    };
    append(unit);
    append("(");
    unsigned int line = Place::Line();
    for (std::size_t i = digits; i-- > 0; line /= 10)
    {
        here.text[at + i] = static_cast<char>('0' + line % 10);
    }
    at += digits;
    append(") : ");
    append(function);
    append("() - ");
    return here;
}

template <class Place>
inline constexpr auto kHere = MakeHere<Place>();

template <class Place>
constexpr const char* Here(Place)
{
    return kHere<Place>.text;
}

} // namespace ErrorHandlerDllDetail

// The text "Unit(42) : Function() - " of the place where it stands: unit is the name of the file without folder and
// extension; inside a lambda, function is the one around it, and "static" where there is none. Made at compile time, of
// static storage: fit as a source, as a location of a raise, and to be kept. Not in a default template argument, behind
// decltype, or for a constant static member inside its class.
#define ZR_HERE                                                                                                             \
    (::ErrorHandlerDllDetail::Here(                                                                                         \
        []                                                                                                                  \
        {                                                                                                                   \
            struct ErrorHandlerDllPlace                                                                                     \
            {                                                                                                               \
                static constexpr const char* Function() { return __PRETTY_FUNCTION__; }                                     \
                static constexpr const char* File() { return __FILE__; }                                                    \
                static constexpr unsigned int Line() { return __LINE__; }                                                   \
            };                                                                                                              \
            return ErrorHandlerDllPlace();                                                                                  \
        }()))

#define ERRORHANDLERDLL_COUNTER(type)                                                                                       \
    (                                                                                                                       \
        []() -> type*                                                                                                       \
        {                                                                                                                   \
            static type gCounter;                                                                                           \
            return &gCounter;                                                                                               \
        }())

#else // C

// Made at the first call from the place, and kept. While one thread makes it, others get a copy of their own.
ERRORHANDLERDLL_INLINE const char* ErrorHandlerDllHere(int* state, char* text, size_t size, const char* file, int line,
                                                       const char* function)
{
    enum
    {
        EMPTY,
        BEING_MADE,
        READY,
        OWN_TEXT_SIZE = 512
    };
    static _Thread_local char ownText[OWN_TEXT_SIZE];
    const char* unit;
    const char* dot;
    int expected = EMPTY;
    if (__atomic_load_n(state, __ATOMIC_ACQUIRE) == READY)
    {
        return text;
    }
    if (!__atomic_compare_exchange_n(state, &expected, BEING_MADE, false, __ATOMIC_ACQUIRE, __ATOMIC_ACQUIRE))
    {
        text = ownText;
        size = OWN_TEXT_SIZE;
    }
    unit = strrchr(file, '/');
    unit = unit == NULL ? file : unit + 1;
    dot = strrchr(unit, '.');
    snprintf(text, size, "%.*s(%d) : %s() - ", (int)(dot == NULL || dot == unit ? strlen(unit) : (size_t)(dot - unit)), unit,
             line, function);
    if (text != ownText)
    {
        __atomic_store_n(state, READY, __ATOMIC_RELEASE);
    }
    return text;
}

// As in C++, but inside functions only; count on it until the thread's next use.
#define ZR_HERE                                                                                                             \
    (__extension__({                                                                                                        \
        static int zrHereState;                                                                                             \
        static char zrHereText[sizeof(__FILE__) + sizeof(__func__) + sizeof("(2147483647) : () - ")];                       \
        ErrorHandlerDllHere(&zrHereState, zrHereText, sizeof zrHereText, __FILE__, __LINE__, __func__);                     \
    }))

#define ERRORHANDLERDLL_COUNTER(type)                                                                                       \
    (__extension__({                                                                                                        \
        static type zrCounter;                                                                                              \
        &zrCounter;                                                                                                         \
    }))

#endif

// ---- Parts of the macros ----------------------------------------------------------------------------------------------

// A level that is not known before run time: nothing is written at the highest one that there is.
ERRORHANDLERDLL_INLINE int ErrorHandlerDllLimitLevel(int level, int highest)
{
    return level <= highest ? level : 0x7FFFFFFF;
}

// A call's result may be left unused without a warning; in C, a condition's may not.
ERRORHANDLERDLL_INLINE bool ErrorHandlerDllResult(bool result)
{
    return result;
}

// The compiler's own atomics: no header, and the same in C and C++.
ERRORHANDLERDLL_INLINE bool ErrorHandlerDllIsFirst(bool* isDone)
{
    return !__atomic_load_n(isDone, __ATOMIC_RELAXED) && !__atomic_exchange_n(isDone, true, __ATOMIC_RELAXED);
}

ERRORHANDLERDLL_INLINE bool ErrorHandlerDllIsNth(unsigned long* calls, unsigned long n)
{
    const unsigned long call = __atomic_fetch_add(calls, 1, __ATOMIC_RELAXED);
    return n < 2 || call % n == 0;
}

ERRORHANDLERDLL_INLINE void ErrorHandlerDllFree(char** text)
{
    free(*text);
}

// Whether the logger's level and mask let a line pass. Takes the log's lock for a moment.
ERRORHANDLERDLL_INLINE bool ErrorHandlerDllPasses(int level, unsigned int mask)
{
    LoggingSettings settings;
    memset(&settings, 0, sizeof settings);
    GetLoggingOptions(&settings);
    return level <= settings.logLevel && (mask & settings.logMask) != 0;
}

#define ERRORHANDLERDLL_IS_COMPILED(level) (!__builtin_constant_p(level) || (level) <= (ZR_LOG_COMPILED_LEVEL))
#define ERRORHANDLERDLL_LEVEL(level) ErrorHandlerDllLimitLevel((level), (ZR_LOG_COMPILED_LEVEL))
#define ERRORHANDLERDLL_LOG_IF(condition, level, mask, ...)                                                                 \
    ErrorHandlerDllResult(ERRORHANDLERDLL_IS_COMPILED(level) && (condition)                                                 \
                              ? LogFormatted(ERRORHANDLERDLL_LEVEL(level), (mask), ZR_HERE, __VA_ARGS__)                    \
                              : true)

// ---- Lines ------------------------------------------------------------------------------------------------------------

// LogFormatted for functions that have a format and arguments of their own; of any length. The list is left unconsumed.
// Without memory for a message of more than 1023 bytes it is cut to them. A call that is filtered out takes the log's lock.
ERRORHANDLERDLL_INLINE ERRORHANDLERDLL_PRINTF(4, 0) bool LogFormattedV(int level, unsigned int mask, const char* source,
                                                                       const char* format, va_list arguments)
{
    const int errnoOfCaller = errno; // "%m" prints it
    char local[1024] = "";
    char* allocated __attribute__((cleanup(ErrorHandlerDllFree))) = NULL; // NOLINT(modernize-use-nullptr): C, too
    va_list copy;
    int length;
    if (!ErrorHandlerDllPasses(level, mask))
    {
        return true;
    }
    va_copy(copy, arguments);
    length = !format ? 0 : vsnprintf(local, sizeof local, format, copy);
    va_end(copy);
    if (length < 0)
    {
        local[0] = '\0';
    }
    else if (ERRORHANDLERDLL_CAST(size_t, length) >= sizeof local)
    {
        const size_t size = ERRORHANDLERDLL_CAST(size_t, length) + 1;
        allocated = ERRORHANDLERDLL_CAST(char*, malloc(size));
        if (allocated)
        {
            errno = errnoOfCaller;
            va_copy(copy, arguments);
            vsnprintf(allocated, size, format, copy);
            va_end(copy);
        }
    }
    errno = errnoOfCaller;
    return LogMessage(level, mask, source, allocated ? allocated : local);
}

// ZR_LOG(level, mask, format, ...): LogFormatted with ZR_HERE as source.
#define ZR_LOG(level, mask, ...) ERRORHANDLERDLL_LOG_IF(true, level, mask, __VA_ARGS__)

// The same for the first call from this place in the process, filtered out or not. The others do nothing and are true.
#define ZR_LOG_ONCE(level, mask, ...)                                                                                       \
    ERRORHANDLERDLL_LOG_IF(ErrorHandlerDllIsFirst(ERRORHANDLERDLL_COUNTER(bool)), level, mask, __VA_ARGS__)

// ZR_LOG_EVERY_N(n, level, mask, format, ...): the same for the first, the (n + 1)th, the (2n + 1)th call from this place,
// of whatever thread. With n below 2 for every one.
#define ZR_LOG_EVERY_N(n, level, mask, ...)                                                                                 \
    ERRORHANDLERDLL_LOG_IF(ErrorHandlerDllIsNth(ERRORHANDLERDLL_COUNTER(unsigned long), (n)), level, mask, __VA_ARGS__)

#ifdef __cplusplus

// LogMessage for a text that need not end in a NUL. A NUL within it ends the message.
ERRORHANDLERDLL_INLINE bool Log(int level, unsigned int mask, const char* source, std::string_view message)
{
    constexpr std::size_t kLongest = 0x7FFFFFFF;
    const std::size_t length = message.size() < kLongest ? message.size() : kLongest;
    return LogFormatted(level, mask, source, "%.*s", static_cast<int>(length), message.empty() ? "" : message.data());
}

// LogMessageAndBufferAsHex for memory of any kind.
//   size  in bytes; of more than 2^31 - 1 the first ones are dumped
ERRORHANDLERDLL_INLINE bool LogHex(int level, unsigned int mask, const char* source, const char* message, const void* data,
                                   std::size_t size)
{
    constexpr std::size_t kLongest = 0x7FFFFFFF;
    return LogMessageAndBufferAsHex(level, mask, source, message, static_cast<const unsigned char*>(data),
                                    static_cast<int>(size < kLongest ? size : kLongest));
}

// The same for the elements of a vector, string, array, span or whatever else has data() and size().
template <class Container>
auto LogHex(int level, unsigned int mask, const char* source, const char* message, const Container& container)
    -> decltype(container.data() != nullptr && container.size() > 0)
{
    using Element = std::remove_reference_t<decltype(*container.data())>;
    static_assert(std::is_trivially_copyable_v<Element>, "the bytes of these elements are not their contents");
    return LogHex(level, mask, source, message, container.data(), container.size() * sizeof(Element));
}

template <class Element, std::size_t count>
bool LogHex(int level, unsigned int mask, const char* source, const char* message, const Element (&array)[count])
{
    static_assert(std::is_trivially_copyable_v<Element>, "the bytes of these elements are not their contents");
    return LogHex(level, mask, source, message, array, sizeof array);
}

namespace ErrorHandlerDllDetail
{

class TraceScope
{
public:
    explicit TraceScope(const char* here) : m_here(here), m_exceptions(std::uncaught_exceptions())
    {
        LogMessage(kLevel, kMask, m_here, "[Entering]");
    }
    TraceScope(const TraceScope&) = delete;
    TraceScope& operator=(const TraceScope&) = delete;
    // Potentially throwing: the unwinding of a cancelled thread must get through.
    ~TraceScope() noexcept(false)
    {
        if (std::uncaught_exceptions() == m_exceptions)
        {
            LogMessage(kLevel, kMask, m_here, "[Exiting]");
        }
    }

private:
    static constexpr int kLevel = 5; // as the library's own trace
    static constexpr unsigned int kMask = 0x20;

    const char* m_here;
    int m_exceptions;
};

} // namespace ErrorHandlerDllDetail

// A statement: writes "[Entering]" here and "[Exiting]" when the scope ends, as the library's own functions do, both with
// this place, at level 5 and mask 0x20. A scope that an exception leaves writes no second line.
#define ZR_TRACE_SCOPE() ERRORHANDLERDLL_TRACE_SCOPE(__LINE__)
#define ERRORHANDLERDLL_TRACE_SCOPE(line) ERRORHANDLERDLL_TRACE_SCOPE_(line)
#define ERRORHANDLERDLL_TRACE_SCOPE_(line) const ::ErrorHandlerDllDetail::TraceScope zrTraceScope##line(ZR_HERE)

// ZR_LOGF is there when the compiler's library has std::format.
#ifdef ERRORHANDLERDLL_HAS_FORMAT

namespace ErrorHandlerDllDetail
{

// References: formatted a second time when the text is long, no argument may have been moved from.
template <class... Arguments>
bool LogStandardFormat(int level, unsigned int mask, const char* source, std::format_string<Arguments&...> format,
                       Arguments&&... arguments)
{
    if (!ErrorHandlerDllPasses(level, mask))
    {
        return true;
    }
    char local[1024];
    const auto result = std::format_to_n(local, sizeof local - 1, format, arguments...);
    if (static_cast<std::size_t>(result.size) < sizeof local)
    {
        *result.out = '\0';
        return LogMessage(level, mask, source, local);
    }
    return LogMessage(level, mask, source, std::format(format, arguments...).c_str());
}

} // namespace ErrorHandlerDllDetail

// ZR_LOGF(level, mask, "{} of {}", ...): as ZR_LOG, with the formats of std::format, checked when compiled.
//   throws  also what the formatting of an argument throws
#define ZR_LOGF(level, mask, ...)                                                                                           \
    ErrorHandlerDllResult(                                                                                                  \
        ERRORHANDLERDLL_IS_COMPILED(level)                                                                                  \
            ? ::ErrorHandlerDllDetail::LogStandardFormat(ERRORHANDLERDLL_LEVEL(level), (mask), ZR_HERE, __VA_ARGS__)        \
            : true)
#endif

#pragma GCC visibility pop
#endif // __cplusplus

#endif
