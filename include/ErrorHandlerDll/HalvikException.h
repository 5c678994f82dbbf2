// The exception of the kit: a code, a finished message and the location of the raising site. C++17 on.
#ifndef ERRORHANDLERDLL_HALVIKEXCEPTION_H
#define ERRORHANDLERDLL_HALVIKEXCEPTION_H

#include "ErrorCodes.h"
#include "Export.h"

#include <cstddef>

// Created with `new`, thrown and caught as a pointer:
//
//   catch (HalvikException* exception)
//   {
//       ExceptionHandler::HandleHalvikException("ReadPage", exception);
//       delete exception;
//   }
//
// The library never deletes one: the code that finally catches it does. Both texts live inside the object, cut to 511 bytes,
// never inside a UTF-8 sequence; a null text is the empty text. An object belongs to the thread that handles it.
// No member throws. The accessors are async-signal-safe.
class HalvikException
{
public:
    ERRORHANDLERDLL_API HalvikException(ZelvoReaderErrorCode code, const char* message, const char* location) noexcept;

    ERRORHANDLERDLL_API ZelvoReaderErrorCode GetErrorCode();

    // Both pointers stay valid for the life of the object.
    ERRORHANDLERDLL_API char* GetErrorString();
    ERRORHANDLERDLL_API char* GetLocationString();

    // Set by the first handler that reports the error, never cleared: later handlers only log that it passes.
    ERRORHANDLERDLL_API void SetHandled();
    ERRORHANDLERDLL_API bool GetHandled();

private:
    static constexpr std::size_t kTextSize = 512; // message and location each, their NUL included

    // Objects cross library boundaries: a change here breaks hosts that are already built.
    static constexpr void CheckLayout()
    {
        static_assert(offsetof(HalvikException, m_errorString) == 0, "layout shared with hosts");
        static_assert(offsetof(HalvikException, m_locationString) == 512, "layout shared with hosts");
        static_assert(offsetof(HalvikException, m_errorCode) == 1024, "layout shared with hosts");
        static_assert(offsetof(HalvikException, m_handled) == 1028, "layout shared with hosts");
        static_assert(sizeof(HalvikException) == 1032, "layout shared with hosts");
    }

    char m_errorString[kTextSize];
    char m_locationString[kTextSize];
    ZelvoReaderErrorCode m_errorCode;
    bool m_handled;
};

#endif
