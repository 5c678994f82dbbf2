// Each adapter and ZR_LOGF of Log.h on a log of their own: what is written, and that no line of several threads is lost.
#include "support/LogTest.h"
#include <ErrorHandlerDll/Log.h>
#include <ErrorHandlerDll/adapters/BoostLog.h>
#include <ErrorHandlerDll/adapters/Glog.h>
#include <ErrorHandlerDll/adapters/Libusb.h>
#include <ErrorHandlerDll/adapters/Spdlog.h>

#include <array>
#include <boost/log/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/unlocked_frontend.hpp>
#include <boost/log/sources/logger.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_channel_logger.hpp>
#include <boost/log/trivial.hpp>
#include <boost/make_shared.hpp>
#include <functional>
#include <spdlog/spdlog.h>
#include <sys/prctl.h>
#include <thread>

namespace
{

using Lines = std::vector<std::string>;
namespace boost_log = boost::log;

// What all adapters promise. A line without a file is lost and throws nothing. Four threads log "#0", "#1" and so on; all
// must be there, four times.
void ExpectLinesOfThreads(const std::function<void(const std::string& text)>& log)
{
    constexpr int kLines = 25000;
    InitialiseLogging(true, 9, ZR_LOG_ALL_CATEGORIES, "/nowhere/adapter.log");
    log("lost");
    const CapturedLog captured(9);
    const auto logLines = [&log]
    {
        for (int line = 0; line < kLines; ++line)
        {
            log("#" + std::to_string(line));
        }
    };
    for (std::array<std::jthread, 4> threads; std::jthread & thread : threads)
    {
        thread = std::jthread(logLines);
    }
    ShutdownLogging();
    std::vector<int> counts(kLines);
    for (const LogLine& line : ParseLog(ReadFile(GetLogFilename())))
    {
        ++counts.at(std::stoul(line.m_text.substr(line.m_text.find('#') + 1)));
    }
    EXPECT_EQ(std::vector<int>(kLines, 4), counts);
}

} // namespace

TEST(Adapter, Format)
{
    const CapturedLog log(9);
    Lines expected;
    // With the 22 characters before it 1001 fill the buffer.
    for (const std::size_t length : {0U, 1001U, 1002U, 70000U})
    {
        EXPECT_TRUE(ZR_LOGF(ZR_LOG_WARNING, 1, "{} % of {:#x} is less {}", 100, 255, std::string(length, 'x')));
        expected.push_back("WARNING|AdapterTest(N) : TestBody() - 100 % of 0xff is less " + std::string(length, 'x'));
    }
    ZR_LOGF(10, 1, "{}", reinterpret_cast<const char*>(8)); // filtered out, so not formatted
    EXPECT_EQ(expected, log.GetLines());
    ExpectLinesOfThreads([](const std::string& text) { ZR_LOGF(ZR_LOG_ERROR, 1, "{}", text); });
}

TEST(Adapter, Spdlog)
{
    const CapturedLog log(9);
    const auto sink = std::make_shared<SpdlogSink>();
    const auto logger = std::make_shared<spdlog::logger>("usb", sink);
    spdlog::initialize_logger(logger); // hands its own format to the sinks
    logger->set_level(spdlog::level::trace);
    logger->error("100 % {}", "%s");
    logger->info("info");
    logger->trace("trace");
    spdlog::logger("", sink).warn(std::string(2000, 'x'));
    SPDLOG_LOGGER_WARN(logger, "place {}", 1);
    EXPECT_EQ((Lines{"ERROR|usb - 100 % %s", "DEBUG_LOW|usb - info", "Level 4|usb - trace",
                     "WARNING|" + std::string(2000, 'x'), "WARNING|AdapterTest(N) : TestBody() - place 1"}),
              log.GetLines());
    ExpectLinesOfThreads([&](const std::string& text) { logger->warn(text); });

    LoggingSettings settings = {0, 0, 100, LOGGING_STRATEGY_OVERWRITE, 0, 0}; // a flush must not empty the file
    SetLoggingOptions(&settings);
    const CapturedLog flushed;
    logger->warn("first");
    logger->flush();
    logger->warn("second");
    settings.strategy = LOGGING_STRATEGY_APPEND;
    SetLoggingOptions(&settings);
    sink->set_pattern("[%L] %v %%");
    logger->warn("third");
    logger->flush();
    EXPECT_EQ((Lines{"WARNING|usb - first", "WARNING|usb - second", "WARNING|usb - [W] third %"}),
              flushed.GetFlushedLines());
    ExpectLinesOfThreads([&](const std::string& text) { logger->warn(text); });
}

TEST(Adapter, Glog)
{
    const CapturedLog log(9);
    google::InitGoogleLogging("AdapterTest");
    FLAGS_stderrthreshold = google::GLOG_FATAL;
    GlogSink sink;
    google::AddLogSink(&sink);
    LOG_TO_SINK_BUT_NOT_TO_LOGFILE(&sink, INFO) << "sink alone";
    LOG(ERROR) << "100 % " << 1;
    prctl(PR_SET_DUMPABLE, 0); // the child leaves no core file
    EXPECT_EXIT(LOG(FATAL) << "the end", testing::KilledBySignal(SIGABRT), "the end");
    EXPECT_EQ(
        (Lines{"DEBUG_LOW|AdapterTest(N) - sink alone", "ERROR|AdapterTest(N) - 100 % 1", "ERROR|AdapterTest(N) - the end"}),
        log.GetLines());
    ExpectLinesOfThreads([](const std::string& text) { LOG(WARNING) << text; });
    google::RemoveLogSink(&sink);
}

TEST(Adapter, BoostLog)
{
    const CapturedLog log(9);
    const auto sink =
        boost::make_shared<boost_log::sinks::unlocked_sink<BoostLogBackend>>(boost::make_shared<BoostLogBackend>());
    boost_log::core::get()->add_sink(sink);
    boost_log::sources::severity_channel_logger_mt<int, std::string> channel(boost_log::keywords::channel = "usb");
    boost_log::sources::logger_mt plain;
    BOOST_LOG_TRIVIAL(error) << "100 % " << 1;
    BOOST_LOG_TRIVIAL(info) << "info";
    BOOST_LOG_TRIVIAL(trace) << "trace";
    BOOST_LOG_SEV(channel, ZR_LOG_DEBUG_HIGH) << "own level";
    BOOST_LOG(plain) << "no level";
    sink->set_formatter(boost_log::expressions::stream << "<" << boost_log::expressions::smessage << ">");
    BOOST_LOG_TRIVIAL(warning) << "formatter";
    boost_log::core::get()->flush();
    EXPECT_EQ((Lines{"ERROR|100 % 1", "DEBUG_LOW|info", "Level 4|trace", "DEBUG_HIGH|usb - own level", "DEBUG_LOW|no level",
                     "WARNING|<formatter>"}),
              log.GetFlushedLines());
    ExpectLinesOfThreads([](const std::string& text) { BOOST_LOG_TRIVIAL(warning) << text; });
    boost_log::core::get()->remove_all_sinks();
}

TEST(Adapter, Libusb)
{
    const CapturedLog log(9);
    LogLibusb<>(nullptr, LIBUSB_LOG_LEVEL_ERROR, "[ 0.000123] [00001a2b] libusb: error [op_open] no access\n");
    LogLibusb<>(nullptr, LIBUSB_LOG_LEVEL_WARNING, "libusb: warning [handle] a [b] c\r\n");
    LogLibusb<>(nullptr, LIBUSB_LOG_LEVEL_INFO, "libusb: info without place");
    LogLibusb<>(nullptr, LIBUSB_LOG_LEVEL_DEBUG, "100 %s [x");
    LogLibusb<>(nullptr, LIBUSB_LOG_LEVEL_DEBUG, nullptr);
    EXPECT_EQ(
        (Lines{"ERROR|libusb : op_open() - no access", "WARNING|libusb : handle() - a [b] c",
               "DEBUG_LOW|libusb - libusb: info without place", "DEBUG_HIGH|libusb - 100 %s [x", "DEBUG_HIGH|libusb - "}),
        log.GetLines());

    // The library itself; it need not find a device.
    const CapturedLog ofLibrary(9);
    libusb_set_log_cb(nullptr, LogLibusb<>, LIBUSB_LOG_CB_GLOBAL);
    setenv("LIBUSB_DEBUG", "4", 1); // libusb 1.0.26 takes the level of libusb_init from nowhere else
    libusb_init(nullptr);
    libusb_exit(nullptr);
    const std::string lines = testing::PrintToString(ofLibrary.GetLines());
    EXPECT_NE(std::string::npos, lines.find("\"DEBUG_HIGH|libusb : libusb_init() - "));
    ExpectLinesOfThreads([](const std::string& text) { LogLibusb<>(nullptr, LIBUSB_LOG_LEVEL_DEBUG, text.c_str()); });
}
