// Raising with the arguments checked against the code's template when the host is compiled. Optional, C++17 on.
//
//   RaiseCheckedError<ZR_ERROR_FILE_NOT_FOUND>("Layout(88) : Open() - ", path);   // compiles when path is a text
//
// Error paths are the least-run code of a host: with RaiseError a missing or wrong argument shows only when the error
// occurs, and then as a crash. The check is of the built-in templates; an override set with SetErrorMessage must take the
// same arguments as the template that it replaces.
#ifndef ERRORHANDLERDLL_CHECKEDRAISE_H
#define ERRORHANDLERDLL_CHECKEDRAISE_H

#include "ErrorHandlerDll.h"

#include <type_traits>

// What the template of a code takes, one letter an argument: s a text, d an int, x an unsigned int.
struct ErrorArgumentRow
{
    ZelvoReaderErrorCode code;
    const char* kinds;
};

// Codes that are not listed take no arguments.
inline constexpr ErrorArgumentRow kErrorArgumentRows[] = {
    {ZR_ERROR_FEATURE_NOT_ENABLED, "s"},
    {ZR_ERROR_FEATURE_NOT_SUPPORTED, "s"},
    {ZR_ERROR_INITIALISATION_FAILED, "s"},
    {ZR_ERROR_UNKNOWN_DATA_FORMAT, "d"},
    {ZR_ERROR_FILE_NOT_FOUND, "s"},
    {ZR_ERROR_FILE_READ, "s"},
    {ZR_ERROR_FILE_WRITE, "s"},
    {ZR_ERROR_MODULE_INFORMATION_UNAVAILABLE, "s"},
    {ZR_ERROR_DLL_LOAD, "ss"},
    {ZR_ERROR_MEMORY_ALLOCATION, "s"},
    {ZR_ERROR_INVALID_PARAMETER, "s"},
    {ZR_ERROR_INDEX_OUT_OF_BOUNDS, "sddd"},
    {ZR_ERROR_BUFFER_TOO_SMALL, "dd"},
    {ZR_ERROR_BITMAP_LOCK_BITS, "d"},
    {ZR_ERROR_OBJECT_ALREADY_STARTED, "s"},
    {ZR_ERROR_OBJECT_NOT_STARTED, "s"},
    {ZR_ERROR_CAMERA_DRIVER_CODE, "d"},
    {ZR_ERROR_CAMERA_SETTINGS_MISMATCH, "s"},
    {ZR_ERROR_SETTINGS_BUFFER_VERSION_MISMATCH, "dd"},
    {ZR_ERROR_INCORRECT_CAMERA_DRIVERS, "dddd"},
    {ZR_ERROR_GPIO_INTERFACE, "d"},
    {ZR_ERROR_UNRECOGNISED_DEVICE, "d"},
    {ZR_ERROR_DEVICE_NOT_PRESENT, "d"},
    {ZR_ERROR_DEVICE_DISABLE, "d"},
    {ZR_ERROR_DEVICE_ENABLE, "d"},
    {ZR_ERROR_VOLUME_LABEL_NOT_FOUND, "s"},
    {ZR_ERROR_DEVICE_DETAILS_UNAVAILABLE, "s"},
    {ZR_ERROR_UNKNOWN_USB_REPORT_ID, "d"},
    {ZR_ERROR_USB_REPORT_VALUE, "ddd"},
    {ZR_ERROR_INVALID_DATAGROUP, "d"},
    {ZR_ERROR_DATAGROUP_NOT_PRESENT, "dd"},
    {ZR_ERROR_DATAGROUP_GET, "dd"},
    {ZR_ERROR_DATAGROUP_VALIDATE, "dd"},
    {ZR_ERROR_DATAGROUP_DECODE, "dd"},
    {ZR_ERROR_DATAGROUP_DECODED_EMPTY, "dd"},
    {ZR_ERROR_BASIC_ACCESS_CONTROL, "d"},
    {ZR_ERROR_ACTIVE_AUTHENTICATION, "d"},
    {ZR_ERROR_RF_SIGNED_ATTRIBUTES_VALIDATION, "d"},
    {ZR_ERROR_RF_SIGNATURE_VALIDATION, "d"},
    {ZR_ERROR_RF_READER_DEAD, "d"},
    {ZR_ERROR_RF_DECODE_EF_COM, "d"},
    {ZR_ERROR_RF_DECODE_EF_SOD, "d"},
    {ZR_ERROR_RF_CHIP_AUTHENTICATION, "d"},
    {ZR_ERROR_RF_CERTIFICATES_LOAD, "d"},
    {ZR_ERROR_RF_TERMINAL_AUTHENTICATION, "d"},
    {ZR_ERROR_RF_UNAUTHORISED_SENSITIVE_DATAGROUP, "d"},
    {ZR_ERROR_RF_NO_CHIP_SELECTED, "d"},
    {ZR_ERROR_RF_UNKNOWN_READER_INDEX, "d"},
    {ZR_ERROR_COM_PORT_OPEN, "dds"},
    {ZR_ERROR_COM_PORT_CONFIGURE_TIMEOUT, "dds"},
    {ZR_ERROR_COM_PORT_CONFIGURE, "dds"},
    {ZR_ERROR_COM_PORT_CLOSE, "dds"},
    {ZR_ERROR_COM_PORT_READ, "dds"},
    {ZR_ERROR_COM_PORT_WRITE, "dds"},
    {ZR_ERROR_DEVICE_CONNECT, "ds"},
    {ZR_ERROR_DEVICE_DISCONNECT, "ds"},
    {ZR_ERROR_UNKNOWN_PROTOCOL_NAME, "s"},
    {ZR_ERROR_INVALID_COMMAND_PARAMETER, "ds"},
    {ZR_ERROR_UNKNOWN_PROTOCOL_COMMAND, "s"},
    {ZR_ERROR_BAD_CHARACTER, "dd"},
    {ZR_ERROR_PROTOCOL_CANNOT_PROCESS_COMMANDS, "s"},
    {ZR_ERROR_INVALID_PROTOCOL_COMMAND, "ss"},
    {ZR_ERROR_COMMAND_PROCESSING, "s"},
    {ZR_ERROR_SOH_FRAME_LENGTH_MISMATCH, "dd"},
    {ZR_ERROR_SOH_FRAME_CHECKSUM, "dd"},
    {ZR_ERROR_TRACK_CHECKSUM, "d"},
    {ZR_ERROR_TRACK_BLOCK_CHECKSUM, "dd"},
    {ZR_ERROR_LINE_FRAME_PARAMETER_COUNT, "sdd"},
    {ZR_ERROR_CRC16_FRAME_CRC, "xxxx"},
    {ZR_ERROR_TRACK_DECODE, "d"},
    {ZR_ERROR_UHF_READ_TAG_ID, "d"},
    {ZR_ERROR_UHF_READ_EPC, "d"},
    {ZR_ERROR_UHF_READ_MEMORY_BANK, "d"},
    {ZR_ERROR_UHF_READ_TAG, "d"},
    {ZR_ERROR_DECODE, "s"},
    {ZR_ERROR_STATE_CHANGE_IN_PROGRESS, "ddd"},
    {ZR_ERROR_PLUGIN, "ss"},
    {ZR_ERROR_LAYOUT_DATABASE_LOAD, "s"},
    {ZR_ERROR_DATA_ITEM_NOT_AVAILABLE, "s"},
    {ZR_ERROR_LAYOUT_DATABASE, "s"},
    {ZR_ERROR_IMAGE_NOT_AVAILABLE, "s"},
    {ZR_ERROR_LAYOUT_OBJECT_NOT_FOUND, "s"},
    {ZR_ERROR_INVALID_STATE_FOR_REQUEST, "s"},
    {ZR_ERROR_OCR, "s"},
    {ZR_ERROR_DATA_ITEM_GET, "s"},
    {ZR_ERROR_INSUFFICIENT_PERMISSION, "s"},
    {ZR_ERROR_PLUGABLE, "ss"},
    {ZR_ERROR_BARCODE_PLUGIN_NOT_AVAILABLE, "sd"},
    {ZR_ERROR_NO_FLIPSIDE_LINKS, "s"},
    {ZR_ERROR_INVALID_STATE_FOR_DATA_RETRIEVAL, "s"},
    {ZR_ERROR_PROCESS_REFERENCE_FILE_LOAD, "sds"},
    {ZR_ERROR_IDENTIFIER_REFERENCE_FILE_LOAD, "sds"},
    {ZR_ERROR_PROCESS_IMAGE_PIXEL_FORMAT, "ss"},
    {ZR_ERROR_IDENTIFIER_IMAGE_PIXEL_FORMAT, "ss"},
    {ZR_ERROR_REFERENCE_FILE_UNUSABLE, "s"},
    {ZR_ERROR_EIGEN_REFERENCE_FILE_CREATE, "s"},
    {ZR_ERROR_EIGEN_REFERENCE_FILE_LOAD, "s"},
    {ZR_ERROR_EIGEN_REFERENCE_FILE_WRITE, "s"},
    {ZR_ERROR_EIGEN_REFERENCE_FILE_SIZE_MISMATCH, "dd"},
    {ZR_ERROR_EIGEN_MATRIX_FILE_CREATE, "s"},
    {ZR_ERROR_EIGEN_MATRIX_FILE_LOAD, "s"},
    {ZR_ERROR_EIGEN_COEFFICIENT_CREATE, "s"},
    {ZR_ERROR_EIGEN_VECTOR_CALCULATE, "s"},
    {ZR_ERROR_OCR_TOOLKIT_IMAGE_LOAD, "s"},
    {ZR_ERROR_PROCESS_PARAMETER_INCORRECT, "ss"},
    {ZR_ERROR_IDENTIFIER_PARAMETER_INCORRECT, "ss"},
    {ZR_ERROR_VERIFIER_PARAMETER_INCORRECT, "ss"},
    {ZR_ERROR_IDENTIFIER_SEARCH_ZONE_INCORRECT, "ss"},
    {ZR_ERROR_PROCESS_REFERENCE_PIXEL_FORMAT, "ss"},
    {ZR_ERROR_IDENTIFIER_REFERENCE_PIXEL_FORMAT, "ss"},
    {ZR_ERROR_UNKNOWN_CODE, "d"},
};

constexpr const char* ErrorArgumentKinds(ZelvoReaderErrorCode code)
{
    for (const ErrorArgumentRow& row : kErrorArgumentRows)
    {
        if (row.code == code)
        {
            return row.kinds;
        }
    }
    return "";
}

// Whether an argument of the type can be given for the kind. Whatever the language passes as an int is one: short, char,
// bool, plain enumerations.
template <typename Argument>
constexpr bool ErrorArgumentFits(char kind)
{
    using Passed = std::decay_t<Argument>;
    if constexpr (std::is_same_v<Passed, const char*> || std::is_same_v<Passed, char*>)
    {
        return kind == 's';
    }
    else if constexpr (std::is_integral_v<Passed> || (std::is_enum_v<Passed> && std::is_convertible_v<Passed, int>))
    {
        using Promoted = decltype(+Passed{});
        return (kind == 'd' && std::is_same_v<Promoted, int>) ||
               (kind == 'x' && (std::is_same_v<Promoted, int> || std::is_same_v<Promoted, unsigned int>));
    }
    else
    {
        return false;
    }
}

template <typename... Arguments>
constexpr bool ErrorArgumentsFit(const char* kinds)
{
    // A missing kind reads as the terminator, which no argument fits.
    const bool allFit = ((*kinds != '\0' && ErrorArgumentFits<Arguments>(*kinds++)) && ...);
    return allFit && *kinds == '\0';
}

// Raises `code` as RaiseError does. Does not compile when the arguments are too few, too many or of the wrong kind.
template <ZelvoReaderErrorCode code, typename... Arguments>
ERRORHANDLERDLL_NORETURN void RaiseCheckedError(const char* location, Arguments... arguments)
{
    static_assert(ErrorArgumentsFit<Arguments...>(ErrorArgumentKinds(code)),
                  "the arguments do not fit the template of this error code");
    RaiseError(code, location, arguments...);
}

#endif
