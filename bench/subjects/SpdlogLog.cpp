// spdlog, with its own file sinks and a pattern of the same fields, or in front of this library with our sink.
#include "ErrorHandlerDll/adapters/Spdlog.h"
#include "bench/LogSubject.h"
#include "bench/subjects/OpenLibraryLog.h"

#include <spdlog/fmt/bin_to_hex.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

namespace
{

constexpr std::size_t kMaxFiles = 1000; // more than a run makes, so that none is removed

template <bool hasOurSink>
class SpdlogLog final : public LogAdapter<SpdlogLog<hasOurSink>>
{
public:
    const char* Name() const override { return hasOurSink ? "spdlog, our sink" : "spdlog"; }

    void Open(const std::string& path, std::size_t maxFileSize) override
    {
        if constexpr (hasOurSink)
        {
            OpenLibraryLog(path, maxFileSize);
            m_logger = std::make_shared<spdlog::logger>("", std::make_shared<SpdlogSink>(1));
        }
        else
        {
            spdlog::sink_ptr sink;
            if (maxFileSize > 0)
            {
                sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(path, maxFileSize, kMaxFiles);
            }
            else
            {
                sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path);
            }
            m_logger = std::make_shared<spdlog::logger>("bench", sink);
            m_logger->set_pattern("%d/%m/%C %H:%M:%S.%e - %-10l - [ThreadID: %t] - %v");
        }
        m_logger->set_level(spdlog::level::warn);
    }
    void Close() override
    {
        m_logger->flush();
        m_logger.reset();
        ShutdownLogging();
    }

    void Line(const std::string& message)
    {
        m_logger->warn(message);
        FlushWhenDue();
    }
    void Formatted(const char* text, int number, unsigned int bits)
    {
        m_logger->warn("{}{} {} {:08x}", kSource, text, number, bits);
        FlushWhenDue();
    }
    void Filtered(const std::string& message) { m_logger->info(message); }
    void Hex(const unsigned char* bytes, int count)
    {
        m_logger->warn("{}buffer{:Xpa}", kSource, spdlog::to_hex(bytes, bytes + count, 16));
        FlushWhenDue();
    }

private:
    void FlushWhenDue()
    {
        if constexpr (!hasOurSink) // this library counts the lines itself
        {
            if (IsFlushDue())
            {
                m_logger->flush();
            }
        }
    }

    std::shared_ptr<spdlog::logger> m_logger;
};

const Registration<SpdlogLog<false>> gRegistration;
const Registration<SpdlogLog<true>> gRegistrationOfOurSink;

} // namespace
