// Runs something that raises and keeps what was raised.
#ifndef TESTS_SUPPORT_CAUGHTERROR_H
#define TESTS_SUPPORT_CAUGHTERROR_H

#include "ErrorHandlerDll/HalvikException.h"

#include <memory>

template <typename Raise>
std::unique_ptr<HalvikException> CatchError(const Raise& raise)
{
    try
    {
        raise();
    }
    catch (HalvikException* exception)
    {
        return std::unique_ptr<HalvikException>(exception);
    }
    return nullptr;
}

#endif
