// A sink that writes what spdlog's loggers are given to the log of the process. C++17 on; tried with spdlog 1.10.
//
//   spdlog::set_default_logger(std::make_shared<spdlog::logger>("usb", std::make_shared<SpdlogSink>(0x0100)));
//   spdlog::warn("{} of {} pages", 3, 4);
//
//   16/11/26 15:38:45.007 - WARNING    - [ThreadID: 4711] - usb - 3 of 4 pages
//
//   level   critical and err: ZR_LOG_ERROR, warn: ZR_LOG_WARNING, info: ZR_LOG_DEBUG_LOW, debug: ZR_LOG_DEBUG_HIGH,
//   trace: 4.
//           The loggers' own levels filter before this log does
//   mask    one for the sink
//   source  with SPDLOG_WARN and its like "Unit(42) : Function() - ", else the logger's name
//   throws  nothing, whatever happens to the log
//   threads any; the sink takes no lock of its own, unless it has a pattern
#ifndef ERRORHANDLERDLL_ADAPTERS_SPDLOG_H
#define ERRORHANDLERDLL_ADAPTERS_SPDLOG_H

#include "../Log.h"
#include "FlushLog.h"

#include <cstdio>
#include <memory>
#include <mutex>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/sink.h>
#include <string>
#include <utility>

class SpdlogSink final : public spdlog::sinks::sink
{
public:
    explicit SpdlogSink(unsigned int mask = ZR_LOG_ALL_CATEGORIES) : m_mask(mask) {}

    void log(const spdlog::details::log_msg& message) override
    {
        try
        {
            char source[kSourceSize];
            MakeSource(source, message);
            spdlog::memory_buf_t text;
            if (m_formatter == nullptr)
            {
                text.append(message.payload.data(), message.payload.data() + message.payload.size());
            }
            else
            {
                const std::lock_guard<std::mutex> lock(m_mutex); // formatters keep the time of the last line
                m_formatter->format(message, text);
            }
            text.push_back('\0');
            LogMessage(Level(message.level), m_mask, source, text.data());
        }
        catch (...)
        {
        }
    }

    // Puts all lines into the file; see FlushLog.h.
    void flush() override
    {
        try
        {
            ErrorHandlerDllDetail::FlushLog();
        }
        catch (...)
        {
        }
    }

    // What stands behind the source; "%v", the message alone, as long as none is set. Before the sink is used.
    void set_pattern(const std::string& pattern) override
    {
        m_formatter = std::make_unique<spdlog::pattern_formatter>(pattern, spdlog::pattern_time_type::local, "");
    }

    // Does nothing: loggers and spdlog itself hand every sink their own format, with time, level and thread, which the line
    // has already.
    void set_formatter(std::unique_ptr<spdlog::formatter>) override {}

private:
    static constexpr std::size_t kSourceSize = 256; // longer ones are cut

    static int Level(spdlog::level::level_enum level)
    {
        switch (level)
        {
        case spdlog::level::warn:
            return ZR_LOG_WARNING;
        case spdlog::level::info:
            return ZR_LOG_DEBUG_LOW;
        case spdlog::level::debug:
            return ZR_LOG_DEBUG_HIGH;
        case spdlog::level::trace:
            return ZR_LOG_DEBUG_HIGH + 1;
        default:
            return ZR_LOG_ERROR;
        }
    }

    static void MakeSource(char (&source)[kSourceSize], const spdlog::details::log_msg& message)
    {
        if (message.source.empty() || message.source.filename == nullptr)
        {
            constexpr std::string_view kEnd = " - ";
            const std::size_t room = kSourceSize - kEnd.size() - 1;
            const std::size_t length = message.logger_name.size() < room ? message.logger_name.size() : room;
            std::memcpy(source, message.logger_name.data(), length);
            std::memcpy(source + length, kEnd.data(), length == 0 ? 0 : kEnd.size());
            source[length == 0 ? 0 : length + kEnd.size()] = '\0';
            return;
        }
        const std::string_view unit = ErrorHandlerDllDetail::UnitOfFile(message.source.filename);
        const char* const function = message.source.funcname;
        std::snprintf(source, kSourceSize, "%.*s(%d) : %s() - ", static_cast<int>(unit.size()), unit.data(),
                      message.source.line, function == nullptr ? "" : function);
    }

    const unsigned int m_mask;
    std::mutex m_mutex;
    std::unique_ptr<spdlog::formatter> m_formatter; // null: the message as it is
};

#endif
