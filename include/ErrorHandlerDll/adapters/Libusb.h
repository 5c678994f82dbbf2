// libusb's messages in the log of the process. C++17 on; tried with libusb 1.0.26.
//
//   libusb_set_option(context, LIBUSB_OPTION_LOG_LEVEL, LIBUSB_LOG_LEVEL_INFO);
//   libusb_set_log_cb(context, LogLibusb<0x0200>, LIBUSB_LOG_CB_CONTEXT); // the mask of its lines
//
//   16/11/26 15:38:45.007 - WARNING    - [ThreadID: 4711] - libusb : op_get_configuration() - device unconfigured
//
// Time, thread and level that libusb puts before its messages are left out: the line has its own.
//   level   error: ZR_LOG_ERROR, warning: ZR_LOG_WARNING, info: ZR_LOG_DEBUG_LOW, debug: ZR_LOG_DEBUG_HIGH
//   throws  nothing, whatever happens to the log: libusb is C
#ifndef ERRORHANDLERDLL_ADAPTERS_LIBUSB_H
#define ERRORHANDLERDLL_ADAPTERS_LIBUSB_H

#include "../Log.h"

#include <cstdio>
#if __has_include(<libusb.h>)
#include <libusb.h> // as pkg-config has it
#else
#include <libusb-1.0/libusb.h>
#endif

#pragma GCC visibility push(hidden)

namespace ErrorHandlerDllDetail
{

// "[ 0.001] [00001234] libusb: debug [libusb_init] message\n" in its parts; what looks otherwise is all message.
struct LibusbText
{
    constexpr explicit LibusbText(std::string_view text) : message(text)
    {
        while (!message.empty() && (message.back() == '\n' || message.back() == '\r'))
        {
            message.remove_suffix(1);
        }
        constexpr std::string_view kName = "libusb: ";
        const std::size_t name = message.find(kName);
        const std::size_t open = name == std::string_view::npos ? name : message.find(" [", name + kName.size());
        const std::size_t close = open == std::string_view::npos ? open : message.find("] ", open);
        if (close != std::string_view::npos)
        {
            function = message.substr(open + 2, close - open - 2);
            message.remove_prefix(close + 2);
        }
    }

    std::string_view function;
    std::string_view message;
};

} // namespace ErrorHandlerDllDetail

template <unsigned int mask = ZR_LOG_ALL_CATEGORIES>
void LIBUSB_CALL LogLibusb(libusb_context*, libusb_log_level level, const char* text)
{
    try
    {
        const ErrorHandlerDllDetail::LibusbText parts(text == nullptr ? "" : text);
        char source[128] = "libusb - "; // a longer one is cut
        if (!parts.function.empty())
        {
            std::snprintf(source, sizeof source, "libusb : %.*s() - ", static_cast<int>(parts.function.size()),
                          parts.function.data());
        }
        const int ours = level == LIBUSB_LOG_LEVEL_ERROR     ? ZR_LOG_ERROR
                         : level == LIBUSB_LOG_LEVEL_WARNING ? ZR_LOG_WARNING
                         : level == LIBUSB_LOG_LEVEL_INFO    ? ZR_LOG_DEBUG_LOW
                                                             : ZR_LOG_DEBUG_HIGH;
        Log(ours, mask, source, parts.message);
    }
    catch (...)
    {
    }
}

#pragma GCC visibility pop

#endif
