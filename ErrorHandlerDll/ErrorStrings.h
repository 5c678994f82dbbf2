// The catalogue: the message templates of the built-in error codes and of the warnings, one row a code. They are texts that
// hosts match on: the double blanks and the spelling stay.
#ifndef ERRORHANDLERDLL_ERRORSTRINGS_H
#define ERRORHANDLERDLL_ERRORSTRINGS_H

#include "ErrorHandlerDll/ErrorCodes.h"

#include <cstddef>
#include <string_view>

struct ErrorString
{
    int number;
    ZelvoReaderErrorCode code;
    std::string_view text; // of a literal, so that data() is NUL-terminated; its length saves each lookup a strlen
};

// For the numbers that have no meaning of their own. They still need a text: any number up to the last can be looked up.
inline constexpr ZelvoReaderErrorCode kUnnamedCode = ZR_ERROR_IN_EXCEPTION_HANDLER;

// clang-format off
inline constexpr ErrorString gErrorStrings[] = {
    {0, ZR_ERROR_NONE, "No error occurred"},
    {1, ZR_ERROR_UNKNOWN, "An unknown error occurred"},
    {2, ZR_ERROR_FEATURE_NOT_ENABLED, "Feature \"%s\" is not enabled"},
    {3, ZR_ERROR_FEATURE_NOT_SUPPORTED, "Feature not supported - \"%s\""},
    {4, ZR_ERROR_NOT_INITIALISED, "Not initialised"},
    {5, ZR_ERROR_ALREADY_INITIALISED, "Already initialised"},
    {6, ZR_ERROR_INITIALISATION_FAILED, "Initialisation failed - %s. See log file for more details"},
    {7, ZR_ERROR_DEVICE_SUSPENDED, "Device is currently suspended"},
    {8, ZR_ERROR_DEVICE_IN_USE, "Device is currently in use by another application"},
    {9, ZR_ERROR_NO_SCANNER_CONNECTED, "No scanner is connected"},
    {10, ZR_ERROR_UNKNOWN_DATA_FORMAT, "Unknown Data Format - %d"},
    {11, ZR_ERROR_FILE_NOT_FOUND, "The file %s does not exist"},
    {12, ZR_ERROR_FILE_READ, "Error reading from file - %s"},
    {13, ZR_ERROR_FILE_WRITE, "Error writing to file - %s"},
    {14, ZR_ERROR_VERSION_INFORMATION_UNAVAILABLE, "Cannot obtain version information"},
    {15, ZR_ERROR_MODULE_INFORMATION_UNAVAILABLE, "Cannot obtain module information - %s"},
    {16, kUnnamedCode, "An unknown error occurred"},
    {17, ZR_ERROR_DLL_LOAD, "Error loading DLL %s - %s"},
    {18, ZR_ERROR_NO_ROOT_SETTINGS_FILE, "No root settings Ini file has been set"},
    {19, ZR_ERROR_INVALID_CUSTOM_SETTINGS_PATH, "Invalid custom settings path"},
    {20, ZR_ERROR_INVALID_CONFIG_FILE_FORMAT, "Invalid config file format"},
    {21, ZR_ERROR_SYSTEM, "A system error occurred"},
    {22, ZR_ERROR_MEMORY_ALLOCATION, "Memory allocation error - %s"},
    {23, ZR_ERROR_INVALID_PARAMETER, "Paramater Invalid - %s"},
    {24, ZR_ERROR_INDEX_OUT_OF_BOUNDS, "%s index value %d is out of bounds - min. value: %d, max. value: %d"},
    {25, ZR_ERROR_STRING_BUFFER_TOO_SMALL, "String buffer too small"},
    {26, ZR_ERROR_BUFFER_TOO_SMALL, "Buffer too small - size = %d, expected %d"},
    {27, ZR_ERROR_IMAGE_TOO_SMALL, "Image too small"},
    {28, ZR_ERROR_INVALID_IMAGE_FORMAT, "Image not in the correct format"},
    {29, ZR_ERROR_BITMAP_LOCK_BITS, "Bitmap::LockBits failed with code %d"},
    {30, ZR_ERROR_TIMED_OUT, "Timed out"},
    {31, ZR_ERROR_ALREADY_IN_USE, "Unable to continue - already in use"},
    {32, ZR_ERROR_OPERATION_CANCELLED, "Operation cancelled"},
    {33, ZR_ERROR_OBJECT_ALREADY_STARTED, "Object has already started - %s"},
    {34, ZR_ERROR_OBJECT_NOT_STARTED, "Object has not yet started - %s"},
    {35, ZR_ERROR_CAMERA_NOT_FOUND, "Camera not found - check connected"},
    {36, ZR_ERROR_CAMERA_OPEN, "Unable to open the camera device"},
    {37, ZR_ERROR_CAMERA_DRIVER_CODE, "Camera driver returned an error code - %d"},
    {38, ZR_ERROR_CAMERA_DRIVER, "Camera driver error - shutdown and re-initialise camera"},
    {39, ZR_ERROR_CAMERA_SETTINGS_MISMATCH, "Camera doesn't match settings - %s"},
    {40, ZR_ERROR_SETTINGS_BUFFER_VERSION_MISMATCH, "Settings buffer provided does not match the SDK's version - size = %d, expected %d"},
    {41, ZR_ERROR_USB1_NOT_SUPPORTED, "USB 1.1 not supported - please use a USB2 port"},
    {42, ZR_ERROR_INCORRECT_CAMERA_DRIVERS, "Incorrect camera drivers - using v%d.%d, expected v%d.%d"},
    {43, ZR_ERROR_GPIO_INTERFACE, "GPIO interface returned an error - %d"},
    {44, ZR_ERROR_RFID_COM_PORT_NOT_FOUND, "Unable to locate the RFID COM port"},
    {45, ZR_ERROR_UNRECOGNISED_DEVICE, "Unrecognised device - %d"},
    {46, ZR_ERROR_DEVICE_NOT_PRESENT, "Device not present - HardwareDevice: %d"},
    {47, ZR_ERROR_DEVICE_DISABLE, "Cannot disable device - HardwareDevice: %d"},
    {48, ZR_ERROR_DEVICE_ENABLE, "Cannot enable device - HardwareDevice: %d"},
    {49, ZR_ERROR_VOLUME_LABEL_NOT_FOUND, "Cannot find disk volume label %s"},
    {50, ZR_ERROR_NO_DRIVES_AVAILABLE, "Cannot find any available drives"},
    {51, ZR_ERROR_DEVICE_DETAILS_UNAVAILABLE, "Cannot get device details - %s"},
    {52, ZR_ERROR_UNKNOWN_USB_REPORT_ID, "Unknown USB report ID - %d"},
    {53, ZR_ERROR_USB_REPORT_VALUE, "Error getting USB report value. UsagePage: %d, Usage: %d, Error Code: %d"},
    {54, ZR_ERROR_CAMERA_DRIVER_DISABLED, "Camera driver is disabled"},
    {55, ZR_ERROR_BIOCHIP_DEAD, "Biochip dead"},
    {56, ZR_ERROR_INVALID_DATAGROUP, "Invalid datagroup (data item %d)"},
    {57, ZR_ERROR_RF_SELECT_APPLICATION, "RF - could not select application"},
    {58, ZR_ERROR_DATAGROUP_NOT_PRESENT, "Datagroup not present - %d (data item %d)"},
    {59, ZR_ERROR_DATAGROUP_GET, "Get data item failed - DG%d (data item %d)"},
    {60, ZR_ERROR_DATAGROUP_VALIDATE, "Validate data item failed - DG%d (Data item %d)"},
    {61, ZR_ERROR_DATAGROUP_DECODE, "Decode data item failed - DG%d (Data item %d)"},
    {62, ZR_ERROR_DATAGROUP_DECODED_EMPTY, "Decoded data item is empty - DG%d (Data item %d)"},
    {63, ZR_ERROR_BASIC_ACCESS_CONTROL, "Basic Access Control failure (Data item %d)"},
    {64, ZR_ERROR_ACTIVE_AUTHENTICATION, "Active Authentication failure (Data item %d)"},
    {65, ZR_ERROR_RF_SIGNED_ATTRIBUTES_VALIDATION, "RF - signed attributes validation failed (Data item %d)"},
    {66, ZR_ERROR_RF_SIGNATURE_VALIDATION, "RF - signature validation failed (Data item %d)"},
    {67, ZR_ERROR_RF_READER_DEAD, "RF reader dead - ensure reader connected. (Data item %d)"},
    {68, ZR_ERROR_RF_APDU_NO_TAG_IN_FIELD, "RF - APDU - No tag in field"},
    {69, ZR_ERROR_RF_APDU_NO_RESPONSE, "RF - APDU - No response"},
    {70, ZR_ERROR_RF_APDU_CRC_FAILURE, "RF - APDU - CRC Failure"},
    {71, ZR_ERROR_RF_APDU_GENERAL_ERROR, "RF - APDU - General Error"},
    {72, ZR_ERROR_RF_APDU_ERROR_RESPONSE, "RF - APDU - Error Response"},
    {73, ZR_ERROR_RF_APDU_UNKNOWN_COMMAND, "RF - APDU - Unknown Command"},
    {74, ZR_ERROR_RF_APDU_OPERATION_MODE_FAILURE, "RF - APDU - Operation Mode Failure"},
    {75, ZR_ERROR_RF_APDU_PARAMETER_OUT_OF_RANGE, "RF - APDU - Parameter out of range"},
    {76, ZR_ERROR_RF_APDU_ACCESS_DENIED, "RF - APDU - Access Denied"},
    {77, ZR_ERROR_RF_APDU_UNKNOWN_ERROR, "RF - APDU - Unknown Error"},
    {78, ZR_ERROR_RF_DECODE_EF_COM, "RF - Failed to decode EF.COM (Data item %d)"},
    {79, ZR_ERROR_RF_DECODE_EF_SOD, "RF - failed to decode EF.SOD (Data item %d)"},
    {80, ZR_ERROR_RF_CHIP_AUTHENTICATION, "RF - Chip authentication failed (Data item %d)"},
    {81, ZR_ERROR_RF_CERTIFICATES_LOAD, "RF - Certificates failed to load (Data item %d)"},
    {82, ZR_ERROR_RF_TERMINAL_AUTHENTICATION, "RF - Terminal Authentication failed (Data item %d)"},
    {83, ZR_ERROR_RF_UNAUTHORISED_SENSITIVE_DATAGROUP, "RF - Unauthorised sensitive Data-Group (Data item %d)"},
    {84, ZR_ERROR_RF_NO_CHIP_SELECTED, "RF - No chip selected (Data item %d)"},
    {85, ZR_ERROR_RF_READ_ABORTED, "RF - Current read aborted"},
    {86, ZR_ERROR_RF_UNKNOWN_READER_INDEX, "RF - Unknown reader index %d"},
    {87, ZR_ERROR_COM_PORT_OPEN, "Error opening COM port %d - [%d] %s"},
    {88, ZR_ERROR_COM_PORT_CONFIGURE_TIMEOUT, "Error configuring COM port %d timeout - [%d] %s"},
    {89, ZR_ERROR_COM_PORT_CONFIGURE, "Error configuring COM port %d - [%d] %s"},
    {90, ZR_ERROR_COM_PORT_CLOSE, "Error closing COM port %d - [%d] %s"},
    {91, ZR_ERROR_COM_PORT_READ, "Error reading from COM port %d - [%d] %s"},
    {92, ZR_ERROR_COM_PORT_WRITE, "Error writing to COM port %d - [%d] %s"},
    {93, ZR_ERROR_DEVICE_CONNECT, "Error whilst connecting to device - [%d] %s"},
    {94, ZR_ERROR_DEVICE_DISCONNECT, "Error whilst disconnecting from device - [%d] %s"},
    {95, ZR_ERROR_SWIPE_READER_NOT_CONNECTED, "Swipe Reader not connected. Make sure it is connected and this software is configured to use it"},
    {96, ZR_ERROR_MSR_NOT_CONNECTED, "MSR not connected. Make sure it is connected and this software is configure to use it"},
    {97, ZR_ERROR_UNKNOWN_PROTOCOL_NAME, "Unknown protocol name - %s (ensure spelling is correct)"},
    {98, ZR_ERROR_NO_SERIAL_DATA_RECEIVED, "No serial data received"},
    {99, ZR_ERROR_INVALID_COMMAND_PARAMETER, "Command parameter ID %d is invalid - value: %s"},
    {100, ZR_ERROR_UNKNOWN_PROTOCOL_COMMAND, "Unknown protocol command - %s"},
    {101, ZR_ERROR_BAD_CHARACTER, "Bad character on line %d position %d"},
    {102, ZR_ERROR_PROTOCOL_CANNOT_PROCESS_COMMANDS, "Protocol %s cannot process commands"},
    {103, ZR_ERROR_INVALID_PROTOCOL_COMMAND, "Invalid command for protocol %s - %s"},
    {104, ZR_ERROR_COMMAND_PROCESSING, "Failed to process command - %s"},
    {105, ZR_ERROR_COMMAND_NOT_ACKNOWLEDGED, "Command was not acknowledged"},
    {106, ZR_ERROR_SOH_FRAME_SOH_MISSING, "Start of Header (SOH) byte missing from message"},
    {107, ZR_ERROR_SOH_FRAME_LENGTH_MISMATCH, "Message length (%d bytes) is not equal to length recorded in message header (%d bytes)"},
    {108, ZR_ERROR_SOH_FRAME_STX_MISSING, "Start of Text (STX) byte missing from message"},
    {109, ZR_ERROR_SOH_FRAME_ETX_MISSING, "End of Text (ETX) byte missing from message"},
    {110, ZR_ERROR_SOH_FRAME_EMPTY, "No message content between STX and ETX"},
    {111, ZR_ERROR_SOH_FRAME_CHECKSUM, "Message checksum is incorrect - calculated %d, expected %d"},
    {112, ZR_ERROR_TRACK_CHECKSUM, "Track %d checksum error"},
    {113, ZR_ERROR_TRACK_BLOCK_CHECKSUM, "Track %d Block %d checksum error"},
    {114, ZR_ERROR_LINE_FRAME_STX_MISSING, "Start of Text (STX) byte missing from message"},
    {115, ZR_ERROR_LINE_FRAME_ETX_MISSING, "End of Text (ETX) byte missing from message"},
    {116, ZR_ERROR_LINE_FRAME_EMPTY, "No message content between STX and ETX"},
    {117, ZR_ERROR_LINE_FRAME_LINE_COUNT, "Incorrect number of lines returned"},
    {118, ZR_ERROR_LINE_FRAME_PARAMETER_COUNT, "Incorrect number of %s parameters - found %d, expected %d"},
    {119, ZR_ERROR_CRC16_FRAME_STX_MISSING, "Start of Text (STX) byte missing from message"},
    {120, ZR_ERROR_CRC16_FRAME_ETX_MISSING, "End of Text (ETX) byte missing from message"},
    {121, ZR_ERROR_CRC16_FRAME_EMPTY, "No message content between STX and ETX"},
    {122, ZR_ERROR_CRC16_FRAME_UNKNOWN_DEVICE_TYPE, "Unknown device type"},
    {123, ZR_ERROR_CRC16_FRAME_CRC, "Message CRC16 is incorrect - calculated H:0x%02x L:0x%02x, received: H:0x%02x L:0x%02x"},
    {124, ZR_ERROR_SOD_FRAME_SOD_MISSING, "Start of Data (SOD) byte missing from message"},
    {125, ZR_ERROR_SOD_FRAME_STX_MISSING, "Start of Text (STX) byte missing from message"},
    {126, ZR_ERROR_SOD_FRAME_ETX_MISSING, "End of Text (ETX) byte missing from message"},
    {127, ZR_ERROR_SOD_FRAME_EOD_MISSING, "End of Data (EOD) byte missing from message"},
    {128, ZR_ERROR_SOD_FRAME_EMPTY, "No message content between STX and ETX"},
    {129, ZR_ERROR_SOD_FRAME_UNKNOWN_DEVICE_TYPE, "Unknown device type"},
    {130, ZR_ERROR_TRACK_DECODE, "Failed to decode track %d"},
    {131, ZR_ERROR_GS_FRAME_GS_MISSING, "Group Separator (GS) byte missing from message"},
    {132, ZR_ERROR_GS_FRAME_EOT_MISSING, "End of Text (EOT) byte missing from message"},
    {133, ZR_ERROR_GS_FRAME_EMPTY, "No message content between GS and EOT"},
    {134, ZR_ERROR_GS_FRAME_UNKNOWN_DEVICE_TYPE, "Unknown device type"},
    {135, ZR_ERROR_UHF_READER_NOT_RESPONDING, "UHF - Reader module not responding - ensure reader connected"},
    {136, ZR_ERROR_UHF_READ_TAG_ID, "UHF - Read TagID failed %d"},
    {137, ZR_ERROR_UHF_READ_EPC, "UHF - Read EPC failed %d"},
    {138, ZR_ERROR_UHF_READ_MEMORY_BANK, "UHF - Read memory bank failed %d"},
    {139, ZR_ERROR_UHF_READ_TAG, "UHF - Error reading tag %d"},
    {140, ZR_ERROR_UHF_TAG_MEMORY_MAP_UNKNOWN, "UHF - Tag memory map unknown"},
    {141, ZR_ERROR_UHF_TAG_LOST, "UHF - Tag lost mid-read"},
    {142, ZR_ERROR_DECODE, "Decode error: %s"},
    {143, ZR_ERROR_INVALID_STATE_CHANGE, "Invalid state change"},
    {144, ZR_ERROR_BLOCKING_API_IN_NON_BLOCKING_MODE, "Blocking API called in Non-Blocking mode"},
    {145, ZR_ERROR_STATE_CHANGE_IN_PROGRESS, "Currently changing state - current state is %d, destination state is %d, requested state is %d"},
    {146, ZR_ERROR_NO_DOCUMENT_ON_WINDOW, "No document on window"},
    {147, ZR_ERROR_SETTINGS_NOT_FOUND, "QV Settings not found"},
    {148, ZR_ERROR_MEMORY_PARSING, "Memory parsing error"},
    {149, ZR_ERROR_EEPROM_NOT_INITIALISED, "Unitialised EEPROM"},
    {150, ZR_ERROR_MOTOR_FEED_REQUIRED, "Operation can only be used after a motor feed command has been issued"},
    {151, ZR_ERROR_PLUGIN, "Error in Plugin %s : %s"},
    {152, ZR_ERROR_INCORRECT_PARAMETER_FORMATTING, "Incorrect Paramater Formatting"},
    {153, ZR_ERROR_LAYOUT_DATABASE_LOAD, "Failed to load layout database - %s"},
    {154, ZR_ERROR_DATA_ITEM_NOT_AVAILABLE, "The requested data item is not available - %s"},
    {155, ZR_ERROR_LAYOUT_DATABASE, "There is an issue within the layout database - %s"},
    {156, ZR_ERROR_IMAGE_NOT_AVAILABLE, "Image is not available - %s"},
    {157, ZR_ERROR_LAYOUT_OBJECT_NOT_FOUND, "Cannot locate the named layout database object - %s"},
    {158, ZR_ERROR_INVALID_STATE_FOR_REQUEST, "Invalid state for request - %s"},
    {159, kUnnamedCode, "An unknown error occurred"},
    {160, kUnnamedCode, "An unknown error occurred"},
    {161, kUnnamedCode, "An unknown error occurred"},
    {162, kUnnamedCode, "An unknown error occurred"},
    {163, kUnnamedCode, "An unknown error occurred"},
    {164, kUnnamedCode, "An unknown error occurred"},
    {165, kUnnamedCode, "An unknown error occurred"},
    {166, ZR_ERROR_OCR, "Error in the OCR - %s"},
    {167, ZR_ERROR_DATA_ITEM_GET, "Get Data Item Failure - %s"},
    {168, ZR_ERROR_INSUFFICIENT_PERMISSION, "Insufficient permission for action - %s"},
    {169, ZR_ERROR_PLUGABLE, "Error with Plugable  %s : %s"},
    {170, ZR_ERROR_BARCODE_PLUGIN_NOT_AVAILABLE, "Barcode plugin is not available  %s : %d"},
    {171, ZR_ERROR_NO_FLIPSIDE_LINKS, "No flipside links available for document  %s"},
    {172, ZR_ERROR_INVALID_STATE_FOR_DATA_RETRIEVAL, "Invalid state for data retrieval - %s"},
    {173, ZR_ERROR_PROCESS_REFERENCE_FILE_LOAD, "Process (%s) Reference file could not be loaded from disk - %d - %s"},
    {174, ZR_ERROR_IDENTIFIER_REFERENCE_FILE_LOAD, "Identifier (%s) Reference file could not be loaded from disk - %d - %s"},
    {175, ZR_ERROR_PROCESS_IMAGE_PIXEL_FORMAT, "Process (%s) Image pixel format must be - %s"},
    {176, ZR_ERROR_IDENTIFIER_IMAGE_PIXEL_FORMAT, "Identifier (%s) Image pixel format must be - %s"},
    {177, ZR_ERROR_REFERENCE_FILE_UNUSABLE, "Reference file could not be used - %s"},
    {178, ZR_ERROR_EIGEN_REFERENCE_FILE_CREATE, "Eigen Reference file could not be created - %s"},
    {179, ZR_ERROR_EIGEN_REFERENCE_FILE_LOAD, "Eigen Reference file could not be loaded from disk - %s"},
    {180, ZR_ERROR_EIGEN_REFERENCE_FILE_WRITE, "Eigen Reference file could not be written to disk - %s"},
    {181, ZR_ERROR_EIGEN_REFERENCE_FILE_SIZE_MISMATCH, "Eigen Reference file does not match to identifier width/height - %d, %d"},
    {182, ZR_ERROR_EIGEN_MATRIX_FILE_CREATE, "Eigen Matrix file could not be created - %s"},
    {183, ZR_ERROR_EIGEN_MATRIX_FILE_LOAD, "Eigen Matrix file could not be loaded from disk - %s"},
    {184, ZR_ERROR_EIGEN_COEFFICIENT_CREATE, "Eigen coeffecient could not be created - %s"},
    {185, ZR_ERROR_EIGEN_VECTOR_CALCULATE, "Eigen vector can not be calculated - %s"},
    {186, ZR_ERROR_OCR_TOOLKIT_IMAGE_LOAD, "Image could not be loaded into OCR toolkit - %s"},
    {187, ZR_ERROR_PROCESS_PARAMETER_INCORRECT, "Process (%s) A parameter passed into process (%s) was incorrect"},
    {188, ZR_ERROR_IDENTIFIER_PARAMETER_INCORRECT, "Identifier (%s) A parameter passed into identifier (%s) was incorrect"},
    {189, ZR_ERROR_VERIFIER_PARAMETER_INCORRECT, "Verifier (%s) A parameter passed into verifier (%s)was incorrect"},
    {190, ZR_ERROR_IDENTIFIER_SEARCH_ZONE_INCORRECT, "Identifier (%s) The search zone provide is incorrect (%s)"},
    {191, ZR_ERROR_REFERENCE_FILE_TOO_SMALL, "Reference file width/height after reduction must be at least 50 pixels in both width and height"},
    {192, ZR_ERROR_PROCESS_REFERENCE_PIXEL_FORMAT, "Process (%s) Reference image pixel format must be - %s"},
    {193, ZR_ERROR_IDENTIFIER_REFERENCE_PIXEL_FORMAT, "Identifier (%s) Reference image pixel format must be - %s"},
    {194, ZR_ERROR_SUBIMAGE_EXTRACT, "Subimage can not be extracted for further processing"},
    {195, ZR_ERROR_UNKNOWN_CODE, "Unknown error code %d"},
};

inline constexpr std::string_view gWarningStrings[] = {
    "An unknown warning occured - %s",
    "Ossel arm timeout failure - %d",
};
// clang-format on

inline constexpr std::string_view kUndefinedCustomErrorText = "Undefined custom error code";
inline constexpr std::string_view kInvalidErrorText = "Invalid error code";
inline constexpr std::string_view kInvalidWarningText = "Invalid warning code";

inline constexpr std::size_t kErrorStringCount = std::size(gErrorStrings);
inline constexpr std::size_t kWarningStringCount = std::size(gWarningStrings);

// Each row stands at its own number, and nothing but the gaps is without an enumerator.
consteval bool ErrorStringsAreComplete()
{
    for (std::size_t i = 0; i < kErrorStringCount; ++i)
    {
        const ErrorString& row = gErrorStrings[i];
        const bool isGap = i == 16 || (i >= 159 && i <= 165);
        if (row.number != static_cast<int>(i) || row.text.empty() || row.code != (isGap ? kUnnamedCode : row.number))
        {
            return false;
        }
    }
    return kErrorStringCount == ZR_ERROR_UNKNOWN_CODE + 1;
}

static_assert(ErrorStringsAreComplete(), "the catalogue has one row for each code, in order");

#endif
