// glog. Its prefix is its own; the message is padded so that the lines have as many bytes.
#include "bench/LogSubject.h"

#include <glog/logging.h>
#include <iomanip>

namespace
{

class GlogLog final : public LogAdapter<GlogLog>
{
public:
    GlogLog()
    {
        FLAGS_stderrthreshold = google::GLOG_FATAL;
        FLAGS_timestamp_in_logfile_name = false;
        google::InitGoogleLogging("bench");
        google::SetLogSymlink(google::GLOG_INFO, "");
    }

    const char* Name() const override { return "glog"; }
    bool HasFormatOfItsOwn() const override { return true; }
    // Its files are named by the second: it cannot change them as often as the rotation scenario does.
    bool Can(Operation operation) const override { return operation != Operation::HEX && operation != Operation::ROTATION; }

    void Open(const std::string& path, std::size_t) override { google::SetLogDestination(google::GLOG_INFO, path.c_str()); }
    void Close() override { google::FlushLogFiles(google::GLOG_INFO); }

    void Line(const std::string& message)
    {
        LOG(INFO) << message;
        FlushWhenDue();
    }
    void Formatted(const char* text, int number, unsigned int bits)
    {
        LOG(INFO) << kSource << text << ' ' << number << ' ' << std::hex << std::setfill('0') << std::setw(8) << bits;
        FlushWhenDue();
    }
    void Filtered(const std::string& message) { VLOG(1) << message; }
    void Hex(const unsigned char*, int) {}

private:
    static void FlushWhenDue()
    {
        if (IsFlushDue())
        {
            google::FlushLogFiles(google::GLOG_INFO);
        }
    }
};

const Registration<GlogLog> gRegistration;

} // namespace
