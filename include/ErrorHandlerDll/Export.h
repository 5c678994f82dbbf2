// Macros that the other headers use for visibility and for what the compiler may check. Usable from C11 and C++17 on.
#ifndef ERRORHANDLERDLL_EXPORT_H
#define ERRORHANDLERDLL_EXPORT_H

#define ERRORHANDLERDLL_API __attribute__((visibility("default")))
#define ERRORHANDLERDLL_NORETURN __attribute__((noreturn))

// For what is called on the small stack of a signal handler: calls past the procedure linkage table, whose first call of a
// function takes more of the stack than the function itself. Clang has no such attribute; its hosts link with -z now or give
// the handler 3 KiB more.
#if defined(__has_attribute)
#if __has_attribute(noplt)
#define ERRORHANDLERDLL_NOPLT __attribute__((noplt))
#endif
#endif
#ifndef ERRORHANDLERDLL_NOPLT
#define ERRORHANDLERDLL_NOPLT
#endif

// The compiler checks the arguments from position `firstArgument` against the printf format at position `formatArgument`.
#define ERRORHANDLERDLL_PRINTF(formatArgument, firstArgument) __attribute__((format(printf, formatArgument, firstArgument)))

// Member functions are not marked: C++ hosts see the whole class, and only its exported members can be linked to.
#ifdef __cplusplus
#define ERRORHANDLERDLL_EXTERN_C_BEGIN                                                                                      \
    extern "C"                                                                                                              \
    {
#define ERRORHANDLERDLL_EXTERN_C_END }
#define ERRORHANDLERDLL_STATIC_ASSERT(condition, text) static_assert(condition, text)
#else
#define ERRORHANDLERDLL_EXTERN_C_BEGIN
#define ERRORHANDLERDLL_EXTERN_C_END
#define ERRORHANDLERDLL_STATIC_ASSERT(condition, text) _Static_assert(condition, text)
#endif

#endif
