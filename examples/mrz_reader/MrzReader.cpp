#include "MrzReader.h"

#include "HostErrors.h"
#include "HostLog.h"
#include "MrzParser.h"
#include <ErrorHandlerDll/Boundary.h>
#include <ErrorHandlerDll/CheckedRaise.h>
#include <ErrorHandlerDll/CrashHandler.h>
#include <ErrorHandlerDll/Log.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <system_error>
#include <thread>

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

[[noreturn]] void RaiseReadError(const std::string& path, const std::string& reason)
{
    RaiseCheckedError<ZR_ERROR_FILE_READ>(ZR_HERE, (path + ": " + reason).c_str());
}

void CheckIsRegularFile(const std::string& path)
{
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(path, error);
    if (status.type() == std::filesystem::file_type::not_found)
    {
        RaiseCheckedError<ZR_ERROR_FILE_NOT_FOUND>(ZR_HERE, path.c_str());
    }
    if (error)
    {
        RaiseReadError(path, error.message());
    }
    // Opening a pipe could wait for ever, and reading a device need not end.
    if (!std::filesystem::is_regular_file(status))
    {
        RaiseReadError(path, "not a regular file");
    }
}

std::string LoadFile(const std::string& path)
{
    CheckIsRegularFile(path);
    const std::unique_ptr<std::FILE, CloseFile> file(std::fopen(path.c_str(), "rb"));
    if (!file)
    {
        RaiseReadError(path, std::generic_category().message(errno));
    }
    std::string bytes(kMaxFileBytes + 1, '\0');
    bytes.resize(std::fread(bytes.data(), 1, bytes.size(), file.get()));
    if (std::ferror(file.get()) != 0)
    {
        RaiseReadError(path, "input error");
    }
    if (bytes.size() > kMaxFileBytes)
    {
        RaiseReadError(path, "too large to be a file of zones");
    }
    return bytes;
}

// The location names the zone: an error block alone says which document it is about.
void RaiseFault(const Fault& fault, const std::string& where)
{
    const std::string location = ZR_HERE + where + ": ";
    char text[128];
    switch (fault.kind)
    {
    case FaultKind::NONE:
        break;
    case FaultKind::LINE_COUNT:
        std::snprintf(text, sizeof text, "zone has %d line(s), expected 2 or 3", fault.found);
        RaiseCheckedError<ZR_ERROR_DECODE>(location.c_str(), text);
    case FaultKind::LINE_LENGTH:
        std::snprintf(text, sizeof text, "line %d has %d characters, expected %d", fault.line, fault.found, fault.expected);
        RaiseCheckedError<ZR_ERROR_DECODE>(location.c_str(), text);
    case FaultKind::BAD_CHARACTER:
        RaiseCheckedError<ZR_ERROR_BAD_CHARACTER>(location.c_str(), fault.line, fault.position);
    case FaultKind::CHECK_DIGIT:
        HostErrors::RaiseCustomError(HostErrors::kWrongCheckDigit, location.c_str(), fault.field, fault.found,
                                     fault.expected);
    }
}

std::string Describe(const Zone& zone)
{
    return zone.format + " " + zone.documentCode + " of " + zone.issuer + ", number " + zone.documentNumber + ", " +
           zone.surname + ", " + zone.givenNames + ", born " + zone.birthDate + ", expires " + zone.expiryDate;
}

// Check digits that fit say nothing about the sense of a date.
void WarnOfOddDates(const Zone& zone, const std::string& where)
{
    if (!IsPlausibleDate(zone.birthDate))
    {
        LogWarning(0, ZR_HERE, (where + ": no such day of birth as " + zone.birthDate).c_str());
    }
    if (!IsPlausibleDate(zone.expiryDate))
    {
        LogWarning(0, ZR_HERE, (where + ": no such day of expiry as " + zone.expiryDate).c_str());
    }
}

// Inner boundary: what is wrong with the zone is reported here and goes on.
Zone ReadZone(const std::string& where, const Lines& lines)
{
    return AtInnerBoundary(ZR_HERE,
                           [&]
                           {
                               Zone zone;
                               RaiseFault(ParseZone(lines, zone), where);
                               WarnOfOddDates(zone, where);
                               return zone;
                           });
}

// Outer boundary: a faulty zone is a verdict, and the next one is read.
Verdict JudgeZone(const std::string& where, const Lines& lines)
{
    Verdict verdict = AtBoundaryOr(
        ZR_HERE,
        [&](ZelvoReaderErrorCode, const char* text) {
            return Verdict{false, where + ": " + text};
        },
        [&] {
            return Verdict{true, where + ": valid - " + Describe(ReadZone(where, lines))};
        });
    Log(ZR_LOG_DEBUG_LOW, HostLog::kVerdicts, ZR_HERE, verdict.text);
    return verdict;
}

std::vector<Verdict> JudgeZones(const std::string& path)
{
    ZR_LOG(ZR_LOG_DEBUG_LOW, HostLog::kFiles, "Opening %s", path.c_str());
    const std::string bytes = LoadFile(path);
    LogHex(ZR_LOG_DEBUG_HIGH, HostLog::kRawData, ZR_HERE, path.c_str(), bytes);

    const std::vector<Lines> zones = SplitIntoZones(bytes);
    if (zones.empty())
    {
        RaiseCheckedError<ZR_ERROR_DECODE>(ZR_HERE, (path + " holds no zone").c_str());
    }
    std::vector<Verdict> verdicts;
    verdicts.reserve(zones.size());
    for (const Lines& lines : zones)
    {
        verdicts.push_back(JudgeZone(path + ", zone " + std::to_string(verdicts.size() + 1), lines));
    }
    return verdicts;
}

// Inner boundary of a file.
std::vector<Verdict> ReadFile(const std::string& path)
{
    return AtInnerBoundary(ZR_HERE, [&] { return JudgeZones(path); });
}

// Threads that cannot be had are done without: the calling thread alone would get through the work.
std::vector<std::jthread> StartThreads(size_t count, const std::function<void()>& work)
{
    std::vector<std::jthread> threads;
    threads.reserve(count);
    try
    {
        while (threads.size() < count)
        {
            threads.emplace_back(
                [work]
                {
                    const CrashHandlerStack stack;
                    work();
                });
        }
    }
    catch (const std::system_error& error)
    {
        ZR_LOG(ZR_LOG_WARNING, HostLog::kFiles, "Going on with %zu threads - %s", threads.size() + 1, error.what());
    }
    return threads;
}

} // namespace

std::vector<FileResult> ReadFiles(const std::vector<std::string>& paths, unsigned int threadCount)
{
    std::vector<FileResult> results(paths.size());
    std::atomic<size_t> next = 0;
    // Outer boundary of a file: it fails alone, and no exception reaches the end of a thread.
    const auto work = [&]
    {
        for (size_t i = next++; i < paths.size(); i = next++)
        {
            FileResult& result = results[i];
            const auto keep = [&result](ZelvoReaderErrorCode code, const char* text)
            {
                result.code = code;
                std::snprintf(result.text, sizeof result.text, "%s", text);
            };
            AtBoundaryOr(ZR_HERE, keep, [&] { result.verdicts = ReadFile(paths[i]); });
        }
    };

    const size_t helpers = std::min<size_t>(threadCount, paths.size()) - (paths.empty() ? 0 : 1);
    {
        const std::vector<std::jthread> threads = StartThreads(helpers, std::ref(work));
        work();
    } // joined here
    return results;
}

} // namespace Mrz
