#include "AdapterTest.h"
#include <ErrorHandlerDll/adapters/Spdlog.h>

#include <spdlog/spdlog.h>

namespace
{

struct Unformattable
{
};

} // namespace

template <>
struct fmt::formatter<Unformattable> : fmt::formatter<int>
{
    template <class Context>
    auto format(Unformattable, Context& context) const -> decltype(context.out())
    {
        throw fmt::format_error("never");
    }
};

int main()
{
    const auto sink = std::make_shared<SpdlogSink>();
    const auto logger = std::make_shared<spdlog::logger>("usb", sink);
    const auto nameless = std::make_shared<spdlog::logger>("", sink);
    spdlog::initialize_logger(logger); // hands its own format to the sinks
    spdlog::set_level(spdlog::level::trace);
    logger->set_level(spdlog::level::trace);
    logger->set_error_handler([](const std::string&) {});

    OpenLog();
    logger->critical("critical");
    logger->error("{:>5}|{:#x}", "e", 255);
    logger->warn("100 % {}", "%s");
    logger->info("info");
    logger->debug("debug");
    logger->trace("trace");
    logger->warn("{}", Unformattable());
    nameless->warn("nameless");
    nameless->warn(std::string(2000, 'x'));
    SPDLOG_LOGGER_WARN(logger, "place {}", 1);
    const std::string place = "SpdlogTest(" + std::to_string(__LINE__ - 1) + ") : main() - place 1";
    CheckLines("levels and sources", {"ERROR|usb - critical", "ERROR|usb -     e|0xff", "WARNING|usb - 100 % %s",
                                      "DEBUG_LOW|usb - info", "DEBUG_HIGH|usb - debug", "Level 4|usb - trace",
                                      "WARNING|nameless", "WARNING|" + std::string(2000, 'x'), "WARNING|" + place});

    OpenLog();
    logger->warn("before the flush");
    logger->flush();
    std::ifstream flushed("adapter.log");
    std::string line;
    Check(static_cast<bool>(std::getline(flushed, line)), "flushed");
    logger->warn("after the flush");
    CheckLines("flush", {"WARNING|usb - before the flush", "WARNING|usb - after the flush"});

    LoggingSettings settings = {};
    settings.strategy = LOGGING_STRATEGY_OVERWRITE;
    settings.flushInterval = 100;
    SetLoggingOptions(&settings);
    OpenLog();
    logger->warn("before the flush");
    logger->flush();
    logger->warn("after the flush");
    CheckLines("flush of a file that would be emptied", {"WARNING|usb - before the flush", "WARNING|usb - after the flush"});
    settings.strategy = LOGGING_STRATEGY_APPEND;
    SetLoggingOptions(&settings);

    InitialiseLogging(true, 9, ZR_LOG_ALL_CATEGORIES, "/nowhere/adapter.log");
    logger->warn("no file");

    CheckThreads([&](int thread, int number) { logger->warn("thread {} line {}", thread, number); });
    sink->set_pattern("[%L] %v %%");
    CheckThreads([&](int thread, int number) { logger->warn("thread {} line {}", thread, number); });
    OpenLog();
    logger->warn("pattern");
    CheckLines("pattern", {"WARNING|usb - [W] pattern %"});
    return Result("spdlog");
}
