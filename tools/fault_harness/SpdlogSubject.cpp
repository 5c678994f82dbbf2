// spdlog with a pattern of the same fields, flushed as often as the library flushes.
#include "Subject.h"

#include <atomic>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

namespace
{

constexpr std::size_t kMaxFiles = 50; // more than a case makes, so that none is removed

spdlog::logger* gLogger = nullptr; // never deleted: late lines must find it
std::atomic<int> gLines{0};

} // namespace

namespace Subject
{

const char* const kName = "spdlog";
const bool kIsLibrary = false;
const bool kRotates = true;

void Open(const std::string& folder, std::size_t maxFileSize)
{
    spdlog::sink_ptr sink;
    if (maxFileSize > 0)
    {
        sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(folder + "/app.log", maxFileSize, kMaxFiles);
    }
    else
    {
        sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(folder + "/app.log");
    }
    gLogger = new spdlog::logger("faults", sink);
    gLogger->set_pattern("%D %H:%M:%S.%e - %-10l - [ThreadID: %t] - %v");
    gLogger->set_error_handler([](const std::string&) {});
}

bool Log(const char* text)
{
    gLogger->warn(text);
    if (++gLines % gLinesPerFlush == 0)
    {
        gLogger->flush();
    }
    return true;
}

void Flush()
{
    gLogger->flush();
}

void Close()
{
    gLogger->flush();
}

std::size_t PrefixLength(std::string_view line)
{
    return MatchForm(line, "00/00/00 00:00:00.000 - * - [ThreadID: #] - ");
}

bool IsOwnLine(std::string_view)
{
    return false;
}

} // namespace Subject
