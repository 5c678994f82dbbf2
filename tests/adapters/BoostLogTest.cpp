#include "AdapterTest.h"
#include <ErrorHandlerDll/adapters/BoostLog.h>

#include <boost/log/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/unlocked_frontend.hpp>
#include <boost/log/sources/logger.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_channel_logger.hpp>
#include <boost/log/trivial.hpp>
#include <boost/make_shared.hpp>

namespace
{

namespace sinks = boost::log::sinks;

template <template <class> class Frontend>
boost::shared_ptr<Frontend<BoostLogBackend>> UseSink()
{
    const auto sink = boost::make_shared<Frontend<BoostLogBackend>>(boost::make_shared<BoostLogBackend>());
    boost::log::core::get()->remove_all_sinks();
    boost::log::core::get()->add_sink(sink);
    return sink;
}

} // namespace

int main()
{
    auto sink = UseSink<sinks::synchronous_sink>();
    OpenLog();
    BOOST_LOG_TRIVIAL(fatal) << "fatal";
    BOOST_LOG_TRIVIAL(error) << "100 % " << 1;
    BOOST_LOG_TRIVIAL(warning) << "warning";
    BOOST_LOG_TRIVIAL(info) << "info";
    BOOST_LOG_TRIVIAL(debug) << "debug";
    BOOST_LOG_TRIVIAL(trace) << "trace";
    boost::log::sources::severity_channel_logger_mt<int, std::string> channel(boost::log::keywords::channel = "usb");
    BOOST_LOG_SEV(channel, ZR_LOG_DEBUG_HIGH) << "own level";
    boost::log::sources::logger_mt plain;
    BOOST_LOG(plain) << "no level";
    boost::log::core::get()->flush();
    sink->set_formatter(boost::log::expressions::stream << "<" << boost::log::expressions::smessage << ">");
    BOOST_LOG_TRIVIAL(warning) << "formatter";
    CheckLines("levels and sources",
               {"ERROR|fatal", "ERROR|100 % 1", "WARNING|warning", "DEBUG_LOW|info", "DEBUG_HIGH|debug", "Level 4|trace",
                "DEBUG_HIGH|usb - own level", "DEBUG_LOW|no level", "WARNING|<formatter>"});

    InitialiseLogging(true, 9, ZR_LOG_ALL_CATEGORIES, "/nowhere/adapter.log");
    BOOST_LOG_TRIVIAL(warning) << "no file";

    const auto logLine = [](int thread, int number)
    {
        BOOST_LOG_TRIVIAL(warning) << "thread " << thread << " line " << number;
    };
    CheckThreads(logLine);
    UseSink<sinks::unlocked_sink>();
    CheckThreads(logLine);
    return Result("Boost.Log");
}
