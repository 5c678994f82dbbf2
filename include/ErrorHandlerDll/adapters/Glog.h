// A sink that writes what glog's macros are given to the log of the process, too. C++17 on; tried with glog 0.6.
//
//   GlogSink sink(0x0100);
//   google::AddLogSink(&sink); // before it goes: google::RemoveLogSink(&sink)
//   LOG(WARNING) << "3 of 4 pages";
//
//   16/11/26 15:38:45.007 - WARNING    - [ThreadID: 4711] - Scanner(42) - 3 of 4 pages
//
// glog goes on writing its own files; FLAGS_minloglevel is what filters for both, LOG_TO_SINK_BUT_NOT_TO_LOGFILE leaves the
// files out.
//   level   FATAL and ERROR: ZR_LOG_ERROR, WARNING: ZR_LOG_WARNING, INFO and VLOG: ZR_LOG_DEBUG_LOW
//   mask    one for the sink
//   FATAL   is in the file before glog ends the process; see FlushLog.h
//   throws  nothing, whatever happens to the log
#ifndef ERRORHANDLERDLL_ADAPTERS_GLOG_H
#define ERRORHANDLERDLL_ADAPTERS_GLOG_H

#include "../Log.h"
#include "FlushLog.h"

#include <cstdio>
#include <glog/logging.h>

class GlogSink final : public google::LogSink
{
public:
    explicit GlogSink(unsigned int mask = ZR_LOG_ALL_CATEGORIES) : m_mask(mask) {}

    using google::LogSink::send;
    void send(google::LogSeverity severity, const char*, const char* file, int line, const google::LogMessageTime&,
              const char* message, std::size_t length) override
    {
        try
        {
            char source[256]; // a longer one is cut
            const std::string_view unit = ErrorHandlerDllDetail::UnitOfFile(file);
            std::snprintf(source, sizeof source, "%.*s(%d) - ", static_cast<int>(unit.size()), unit.data(), line);
            const int level = severity >= google::GLOG_ERROR     ? ZR_LOG_ERROR
                              : severity == google::GLOG_WARNING ? ZR_LOG_WARNING
                                                                 : ZR_LOG_DEBUG_LOW;
            Log(level, m_mask, source, {message, length});
            if (severity == google::GLOG_FATAL)
            {
                ErrorHandlerDllDetail::FlushLog();
            }
        }
        catch (...)
        {
        }
    }

private:
    const unsigned int m_mask;
};

#endif
