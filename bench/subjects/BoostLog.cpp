// Boost.Log with a format of the same fields, a synchronous sink and no flush but that by count.
#include "bench/LogSubject.h"

#include <boost/log/attributes/clock.hpp>
#include <boost/log/attributes/current_thread_id.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_file_backend.hpp>
#include <boost/log/sources/logger.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_logger.hpp>
#include <boost/log/support/date_time.hpp>
#include <boost/log/trivial.hpp>
#include <boost/smart_ptr/make_shared.hpp>
#include <iomanip>

namespace
{

namespace attrs = boost::log::attributes;
namespace expr = boost::log::expressions;
namespace sinks = boost::log::sinks;
namespace trivial = boost::log::trivial;

class BoostLog final : public LogAdapter<BoostLog>
{
public:
    BoostLog()
    {
        const auto core = boost::log::core::get();
        core->add_global_attribute("TimeStamp", attrs::local_clock());
        core->add_global_attribute("ThreadID", attrs::current_thread_id());
        core->set_filter(expr::attr<trivial::severity_level>("Severity") >= trivial::warning);
    }

    const char* Name() const override { return "Boost.Log"; }
    bool Can(Operation operation) const override { return operation != Operation::HEX; }

    void Open(const std::string& path, std::size_t maxFileSize) override
    {
        const auto backend = boost::make_shared<sinks::text_file_backend>();
        backend->auto_flush(false);
        backend->set_file_name_pattern(maxFileSize > 0 ? path.substr(0, path.size() - 3) + "%N.log" : path);
        backend->set_rotation_size(maxFileSize > 0 ? maxFileSize : UINT64_MAX);
        m_sink = boost::make_shared<Sink>(backend);
        m_sink->set_formatter(expr::stream
                              << expr::format_date_time<boost::posix_time::ptime>("TimeStamp", "%d/%m/%y %H:%M:%S.%f")
                              << " - " << std::setw(10) << std::left << expr::attr<trivial::severity_level>("Severity")
                              << " - [ThreadID: " << expr::attr<attrs::current_thread_id::value_type>("ThreadID") << "] - "
                              << expr::smessage);
        boost::log::core::get()->add_sink(m_sink);
    }
    void Close() override
    {
        boost::log::core::get()->remove_sink(m_sink);
        m_sink->flush();
        m_sink.reset();
    }

    void Line(const std::string& message)
    {
        BOOST_LOG_SEV(m_logger, trivial::warning) << message;
        FlushWhenDue();
    }
    void Formatted(const char* text, int number, unsigned int bits)
    {
        BOOST_LOG_SEV(m_logger, trivial::warning)
            << kSource << text << ' ' << number << ' ' << std::hex << std::setfill('0') << std::setw(8) << bits;
        FlushWhenDue();
    }
    void Filtered(const std::string& message) { BOOST_LOG_SEV(m_logger, trivial::info) << message; }
    void Hex(const unsigned char*, int) {}

private:
    using Sink = sinks::synchronous_sink<sinks::text_file_backend>;

    void FlushWhenDue()
    {
        if (IsFlushDue())
        {
            m_sink->flush();
        }
    }

    boost::shared_ptr<Sink> m_sink;
    boost::log::sources::severity_logger_mt<trivial::severity_level> m_logger;
};

const Registration<BoostLog> gRegistration;

} // namespace
