// spdlog in front of this library: its logger and formatter, our sink.
#include "ErrorHandlerDll/adapters/Spdlog.h"
#include "bench/LogSubject.h"

#include <spdlog/fmt/bin_to_hex.h>
#include <spdlog/spdlog.h>

namespace
{

class SpdlogSinkLog final : public LogAdapter<SpdlogSinkLog>
{
public:
    const char* Name() const override { return "spdlog, our sink"; }

    void Open(const std::string& path, std::size_t maxFileSize) override
    {
        LoggingSettings settings = {};
        settings.flushInterval = kLinesPerFlush - 1;
        settings.strategy = maxFileSize > 0 ? LOGGING_STRATEGY_FILE_SIZE : LOGGING_STRATEGY_APPEND;
        settings.maxFileSize = static_cast<std::uint32_t>(maxFileSize);
        InitialiseLogging(true, ZR_LOG_WARNING, 1, path.c_str());
        SetLoggingOptions(&settings);
        m_logger = std::make_shared<spdlog::logger>("", std::make_shared<SpdlogSink>(1));
        m_logger->set_level(spdlog::level::warn);
    }
    void Close() override
    {
        m_logger.reset();
        ShutdownLogging();
    }

    void Line(const std::string& message) { m_logger->warn(message); }
    void Formatted(const char* text, int number, unsigned int bits)
    {
        m_logger->warn("{}{} {} {:08x}", kSource, text, number, bits);
    }
    void Filtered(const std::string& message) { m_logger->info(message); }
    void Hex(const unsigned char* bytes, int count)
    {
        m_logger->warn("{}buffer{:Xpa}", kSource, spdlog::to_hex(bytes, bytes + count, 16));
    }

private:
    std::shared_ptr<spdlog::logger> m_logger;
};

const Registration<SpdlogSinkLog> gRegistration;

} // namespace
