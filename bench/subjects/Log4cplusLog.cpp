// log4cplus with a pattern of the same fields.
#include "bench/LogSubject.h"

#include <log4cplus/fileappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <log4cplus/loggingmacros.h>

namespace
{

constexpr int kMaxFiles = 1000; // more than a run makes, so that none is removed

// Its appenders flush after every line or when their buffer is full; this opens the way to a flush by count.
template <class Appender>
class Flushable : public Appender
{
public:
    using Appender::Appender;
    void Flush()
    {
        const log4cplus::thread::MutexGuard guard(this->access_mutex);
        this->out.flush();
    }
};

class Log4cplusLog final : public LogAdapter<Log4cplusLog>
{
public:
    Log4cplusLog() : m_logger(log4cplus::Logger::getInstance("bench"))
    {
        m_logger.setLogLevel(log4cplus::WARN_LOG_LEVEL);
        m_logger.setAdditivity(false);
    }

    const char* Name() const override { return "log4cplus"; }
    bool Can(Operation operation) const override { return operation != Operation::HEX; }

    void Open(const std::string& path, std::size_t maxFileSize) override
    {
        if (maxFileSize > 0)
        {
            Use<log4cplus::RollingFileAppender>(path, static_cast<long>(maxFileSize), kMaxFiles, false);
        }
        else
        {
            Use<log4cplus::FileAppender>(path, std::ios_base::app, false);
        }
    }
    void Close() override { m_logger.removeAllAppenders(); }

    void Line(const std::string& message)
    {
        LOG4CPLUS_WARN(m_logger, message);
        FlushWhenDue();
    }
    void Formatted(const char* text, int number, unsigned int bits)
    {
        LOG4CPLUS_WARN_FMT(m_logger, "%s%s %d %08x", kSource, text, number, bits);
        FlushWhenDue();
    }
    void Filtered(const std::string& message) { LOG4CPLUS_INFO(m_logger, message); }
    void Hex(const unsigned char*, int) {}

private:
    template <class Appender, class... Arguments>
    void Use(Arguments... arguments)
    {
        auto* const appender = new Flushable<Appender>(arguments...);
        appender->setLayout(
            std::make_unique<log4cplus::PatternLayout>("%D{%d/%m/%y %H:%M:%S.%q} - %-10p - [ThreadID: %T] - %m%n"));
        m_flush = [appender]
        {
            appender->Flush();
        };
        m_logger.addAppender(log4cplus::SharedAppenderPtr(appender));
    }
    void FlushWhenDue()
    {
        if (IsFlushDue())
        {
            m_flush();
        }
    }

    log4cplus::Initializer m_initializer;
    log4cplus::Logger m_logger;
    std::function<void()> m_flush;
};

const Registration<Log4cplusLog> gRegistration;

} // namespace
