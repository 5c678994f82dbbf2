// Only compiled: as it stands it must compile, and with any of the macros below it must not.
#include "ErrorHandlerDll/CheckedRaise.h"

#include <string>

enum Tray
{
    UPPER
};

void RaiseAll(char* text, short number, unsigned char byte, unsigned int word)
{
    RaiseCheckedError<ZR_ERROR_NOT_INITIALISED>("at");
    RaiseCheckedError<ZR_ERROR_FILE_NOT_FOUND>(nullptr, text);
    RaiseCheckedError<ZR_ERROR_INDEX_OUT_OF_BOUNDS>("at", "tray", UPPER, number, true);
    RaiseCheckedError<ZR_ERROR_CRC16_FRAME_CRC>("at", byte, word, 1, 'c');
    RaiseCheckedError<static_cast<ZelvoReaderErrorCode>(0x10000)>("at");
#ifdef TOO_FEW
    RaiseCheckedError<ZR_ERROR_COM_PORT_OPEN>("at", 1, 2);
#endif
#ifdef TOO_MANY
    RaiseCheckedError<ZR_ERROR_FILE_NOT_FOUND>("at", text, 1);
#endif
#ifdef NO_TEXT
    RaiseCheckedError<ZR_ERROR_FILE_NOT_FOUND>("at", 1);
#endif
#ifdef NO_NUMBER
    RaiseCheckedError<ZR_ERROR_TRACK_DECODE>("at", text);
#endif
#ifdef TOO_WIDE
    RaiseCheckedError<ZR_ERROR_TRACK_DECODE>("at", 1L);
#endif
#ifdef STRING_OBJECT
    RaiseCheckedError<ZR_ERROR_FILE_NOT_FOUND>("at", std::string("path"));
#endif
#ifdef UNUSED_BY_CUSTOM_CODE
    RaiseCheckedError<static_cast<ZelvoReaderErrorCode>(0x10000)>("at", 1);
#endif
}
