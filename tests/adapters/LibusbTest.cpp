#include "AdapterTest.h"
#include <ErrorHandlerDll/adapters/Libusb.h>

#include <algorithm>

int main()
{
    const struct
    {
        libusb_log_level level;
        const char* text;
        const char* written;
    } kRows[] = {
        {LIBUSB_LOG_LEVEL_ERROR, "[ 0.000123] [00001a2b] libusb: error [op_open] no access\n",
         "ERROR|libusb : op_open() - no access"},
        {LIBUSB_LOG_LEVEL_WARNING, "libusb: warning [handle] a [b] c\r\n", "WARNING|libusb : handle() - a [b] c"},
        {LIBUSB_LOG_LEVEL_INFO, "libusb: info without place", "DEBUG_LOW|libusb - libusb: info without place"},
        {LIBUSB_LOG_LEVEL_DEBUG, "100 %s [x", "DEBUG_HIGH|libusb - 100 %s [x"},
        {LIBUSB_LOG_LEVEL_DEBUG, "\n", "DEBUG_HIGH|libusb - "},
        {LIBUSB_LOG_LEVEL_DEBUG, nullptr, "DEBUG_HIGH|libusb - "},
    };
    OpenLog();
    std::vector<std::string> written;
    for (const auto& row : kRows)
    {
        LogLibusb<>(nullptr, row.level, row.text);
        written.emplace_back(row.written);
    }
    CheckLines("texts", written);

    // The library itself; it need not find a device.
    OpenLog();
    libusb_set_log_cb(nullptr, LogLibusb<>, LIBUSB_LOG_CB_GLOBAL);
    setenv("LIBUSB_DEBUG", "4", 1); // libusb 1.0.26 takes the level of libusb_init from nowhere else
    libusb_context* context = nullptr;
    if (libusb_init(&context) == 0)
    {
        libusb_exit(context);
    }
    const std::vector<std::string> lines = CloseLog();
    const bool hasPlace =
        std::any_of(lines.begin(), lines.end(),
                    [](const std::string& line) { return line.rfind("DEBUG_HIGH|libusb : libusb_init() - ", 0) == 0; });
    Check(hasPlace, "lines of libusb_init");

    InitialiseLogging(true, 9, ZR_LOG_ALL_CATEGORIES, "/nowhere/adapter.log");
    LogLibusb<>(nullptr, LIBUSB_LOG_LEVEL_ERROR, "no file");

    CheckThreads(
        [](int thread, int number)
        {
            const std::string text =
                "libusb: debug [f] thread " + std::to_string(thread) + " line " + std::to_string(number) + "\n";
            LogLibusb<>(nullptr, LIBUSB_LOG_LEVEL_DEBUG, text.c_str());
        });
    return Result("libusb");
}
