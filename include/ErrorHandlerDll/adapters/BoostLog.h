// A backend that writes the records of Boost.Log to the log of the process. C++17 on; tried with Boost 1.74.
//
//   using Sink = boost::log::sinks::unlocked_sink<BoostLogBackend>; // or synchronous_sink, asynchronous_sink
//   boost::log::core::get()->add_sink(boost::make_shared<Sink>(boost::make_shared<BoostLogBackend>(0x0100)));
//   BOOST_LOG_TRIVIAL(warning) << "3 of 4 pages";
//
//   16/11/26 15:38:45.007 - WARNING    - [ThreadID: 4711] - 3 of 4 pages
//
//   level   of the attribute "Severity": a trivial severity_level (fatal and error: ZR_LOG_ERROR, warning: ZR_LOG_WARNING,
//           info: ZR_LOG_DEBUG_LOW, debug: ZR_LOG_DEBUG_HIGH, trace: 4), or an int, which is the level itself; without one
//           ZR_LOG_DEBUG_LOW
//   mask    one for the backend
//   source  the attribute "Channel", when it is a std::string
//   message what the sink's formatter makes of the record; without one the message. With asynchronous_sink the thread
//           and the time of the line are those of the sink's thread
//   throws  nothing, whatever happens to the log
//   threads any; the backend needs no lock
#ifndef ERRORHANDLERDLL_ADAPTERS_BOOSTLOG_H
#define ERRORHANDLERDLL_ADAPTERS_BOOSTLOG_H

#include "../ErrorHandlerDll.h"
#include "FlushLog.h"

#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core/record_view.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/frontend_requirements.hpp>
#include <boost/log/trivial.hpp>
#include <string>

class BoostLogBackend final
    : public boost::log::sinks::basic_formatted_sink_backend<
          char,
          boost::log::sinks::combine_requirements<boost::log::sinks::concurrent_feeding, boost::log::sinks::flushing>::type>
{
public:
    explicit BoostLogBackend(unsigned int mask = ZR_LOG_ALL_CATEGORIES) : m_mask(mask) {}

    void consume(const boost::log::record_view& record, const string_type& text)
    {
        try
        {
            std::string source;
            if (const auto channel = boost::log::extract<std::string>("Channel", record))
            {
                source = *channel + " - ";
            }
            LogMessage(Level(record), m_mask, source.c_str(), text.c_str());
        }
        catch (...)
        {
        }
    }

    // Puts all lines into the file; see FlushLog.h.
    void flush()
    {
        try
        {
            ErrorHandlerDllDetail::FlushLog();
        }
        catch (...)
        {
        }
    }

private:
    static int Level(const boost::log::record_view& record)
    {
        if (const auto level = boost::log::extract<int>("Severity", record))
        {
            return *level;
        }
        const auto severity = boost::log::extract<boost::log::trivial::severity_level>("Severity", record);
        switch (severity ? *severity : boost::log::trivial::info)
        {
        case boost::log::trivial::trace:
            return ZR_LOG_DEBUG_HIGH + 1;
        case boost::log::trivial::debug:
            return ZR_LOG_DEBUG_HIGH;
        case boost::log::trivial::info:
            return ZR_LOG_DEBUG_LOW;
        case boost::log::trivial::warning:
            return ZR_LOG_WARNING;
        default:
            return ZR_LOG_ERROR;
        }
    }

    const unsigned int m_mask;
};

#endif
