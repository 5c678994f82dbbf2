#include "ErrorHandlerDll/HalvikException.h"

#include "QV/FixedText.h"

HalvikException::HalvikException(ZelvoReaderErrorCode code, const char* message, const char* location) noexcept
    : m_errorCode(code), m_handled(false)
{
    CopyFixedText(m_errorString, sizeof m_errorString, message);
    CopyFixedText(m_locationString, sizeof m_locationString, location);
}

ZelvoReaderErrorCode HalvikException::GetErrorCode()
{
    return m_errorCode;
}

char* HalvikException::GetErrorString()
{
    return m_errorString;
}

char* HalvikException::GetLocationString()
{
    return m_locationString;
}

void HalvikException::SetHandled()
{
    m_handled = true;
}

bool HalvikException::GetHandled()
{
    return m_handled;
}
