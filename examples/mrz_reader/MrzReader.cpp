#include "MrzReader.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <system_error>
#include <thread>

#include "HostLog.h"
#include "MrzParser.h"

#define SOURCE(function) HOST_LOG_SOURCE(MrzReader, function)

namespace Mrz
{
namespace
{

// A zone has about 90 characters. The limit keeps a file named by mistake out of the memory and, as a dump, out of the log.
constexpr size_t kMaxFileBytes = 256 * 1024;

struct CloseFile
{
    void operator()(std::FILE* file) const { std::fclose(file); }
};

// Returns what is wrong, or an empty text.
std::string LoadFile(const std::string& path, std::string& bytes)
{
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (status.type() == std::filesystem::file_type::not_found)
        return "The file does not exist";
    if (error)
        return "Error reading from file - " + error.message();
    // Opening a pipe could wait for ever, and reading a device need not end.
    if (!std::filesystem::is_regular_file(status))
        return "Error reading from file - not a regular file";

    const std::unique_ptr<std::FILE, CloseFile> file(std::fopen(path.c_str(), "rb"));
    if (!file)
        return std::string("Error reading from file - ") + std::strerror(errno);
    bytes.resize(kMaxFileBytes + 1);
    bytes.resize(std::fread(bytes.data(), 1, bytes.size(), file.get()));
    if (std::ferror(file.get()) != 0)
        return "Error reading from file - input error";
    if (bytes.size() > kMaxFileBytes)
        return "Error reading from file - too large to be a file of zones";
    return {};
}

std::string Describe(const Fault& fault)
{
    char text[128] = "";
    switch (fault.kind)
    {
    case FaultKind::NONE:
        break;
    case FaultKind::LINE_COUNT:
        std::snprintf(text, sizeof text, "Zone has %d line(s), expected 2 or 3", fault.found);
        break;
    case FaultKind::LINE_LENGTH:
        std::snprintf(text, sizeof text, "Line %d has %d characters, expected %d", fault.line, fault.found, fault.expected);
        break;
    case FaultKind::BAD_CHARACTER:
        std::snprintf(text, sizeof text, "Bad character on line %d position %d", fault.line, fault.position);
        break;
    case FaultKind::CHECK_DIGIT:
        std::snprintf(text, sizeof text, "Check digit of the %s is wrong - found %c, calculated %d", fault.field,
                      fault.found, fault.expected);
        break;
    }
    return text;
}

std::string Describe(const Zone& zone)
{
    return zone.format + " " + zone.documentCode + " of " + zone.issuer + ", number " + zone.documentNumber + ", " +
           zone.surname + ", " + zone.givenNames + ", born " + zone.birthDate + ", expires " + zone.expiryDate;
}

Verdict JudgeZone(const std::string& where, const Lines& lines)
{
    Zone zone;
    const Fault fault = ParseZone(lines, zone);
    Verdict verdict = {!fault, where + ": " + (fault ? Describe(fault) : "valid - " + Describe(zone))};
    LogMessage(fault ? ZR_LOG_WARNING : ZR_LOG_DEBUG_LOW, HostLog::kVerdicts, SOURCE(JudgeZone), verdict.text.c_str());
    return verdict;
}

Verdict RefuseFile(const std::string& path, const std::string& reason)
{
    Verdict verdict = {false, path + ": " + reason};
    LogMessage(ZR_LOG_ERROR, HostLog::kVerdicts, SOURCE(RefuseFile), verdict.text.c_str());
    return verdict;
}

std::vector<Verdict> ReadFile(const std::string& path)
{
    LogFormatted(ZR_LOG_DEBUG_LOW, HostLog::kFiles, SOURCE(ReadFile), "Opening %s", path.c_str());
    std::string bytes;
    if (const std::string reason = LoadFile(path, bytes); !reason.empty())
        return {RefuseFile(path, reason)};
    LogMessageAndBufferAsHex(ZR_LOG_DEBUG_HIGH, HostLog::kRawData, SOURCE(ReadFile), path.c_str(),
                             reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));

    const std::vector<Lines> zones = SplitIntoZones(bytes);
    if (zones.empty())
        return {RefuseFile(path, "The file holds no zone")};
    std::vector<Verdict> verdicts;
    verdicts.reserve(zones.size());
    for (const Lines& lines : zones)
        verdicts.push_back(JudgeZone(path + ", zone " + std::to_string(verdicts.size() + 1), lines));
    return verdicts;
}

// Threads that cannot be had are done without: the calling thread alone would get through the work.
std::vector<std::thread> StartThreads(size_t count, const std::function<void()>& work)
{
    std::vector<std::thread> threads;
    threads.reserve(count);
    try
    {
        while (threads.size() < count)
            threads.emplace_back(work);
    }
    catch (const std::system_error& error)
    {
        LogFormatted(ZR_LOG_WARNING, HostLog::kFiles, SOURCE(StartThreads), "Going on with %zu threads - %s",
                     threads.size() + 1, error.what());
    }
    return threads;
}

} // namespace

std::vector<Verdict> ReadFiles(const std::vector<std::string>& paths, unsigned int threadCount)
{
    std::vector<std::vector<Verdict>> verdictsOfFile(paths.size());
    std::atomic<size_t> next = 0;
    const auto work = [&]
    {
        for (size_t i = next++; i < paths.size(); i = next++)
            verdictsOfFile[i] = ReadFile(paths[i]);
    };

    const size_t wanted = std::min<size_t>(threadCount, paths.size());
    std::vector<std::thread> threads = StartThreads(wanted > 0 ? wanted - 1 : 0, work);
    work();
    for (std::thread& thread : threads)
        thread.join();

    std::vector<Verdict> verdicts;
    for (const std::vector<Verdict>& ofFile : verdictsOfFile)
        verdicts.insert(verdicts.end(), ofFile.begin(), ofFile.end());
    return verdicts;
}

} // namespace Mrz
