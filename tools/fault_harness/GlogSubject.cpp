// glog, flushed as often as the library flushes.
#include "Subject.h"

#include <atomic>
#include <glog/logging.h>

namespace
{

std::atomic<int> gLines{0};

} // namespace

namespace Subject
{

const char* const kName = "glog";
const bool kIsLibrary = false;
const bool kRotates = false; // by megabytes only

void Open(const std::string& folder, std::size_t)
{
    FLAGS_stderrthreshold = google::GLOG_FATAL;
    FLAGS_timestamp_in_logfile_name = false;
    if (!google::IsGoogleLoggingInitialized())
    {
        google::InitGoogleLogging("faults");
    }
    google::SetLogSymlink(google::GLOG_INFO, "");
    google::SetLogDestination(google::GLOG_INFO, (folder + "/app.log").c_str());
}

bool Log(const char* text)
{
    LOG(INFO) << text;
    if (++gLines % gLinesPerFlush == 0)
    {
        google::FlushLogFiles(google::GLOG_INFO);
    }
    return true;
}

void Flush()
{
    google::FlushLogFiles(google::GLOG_INFO);
}

void Close()
{
    google::FlushLogFiles(google::GLOG_INFO);
}

std::size_t PrefixLength(std::string_view line)
{
    const std::size_t length = MatchForm(line, "I00000000 00:00:00.000000 ");
    const std::size_t end = line.find("] ");
    return length == std::string_view::npos || end == std::string_view::npos ? std::string_view::npos : end + 2;
}

bool IsOwnLine(std::string_view line)
{
    for (const std::string_view start : {"Log file created at", "Running on machine", "Running duration", "Log line format"})
    {
        if (line.substr(0, start.size()) == start)
        {
            return true;
        }
    }
    return false;
}

} // namespace Subject
