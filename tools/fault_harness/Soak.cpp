// A long life: faults_soak [MILLIONS] lines to numbered files, the finished ones counted and deleted on the way. Memory and
// descriptors must stay flat; the cost of a line is shown for the first and the last million, in processor time of the
// thread, and judged by whoever reads it.
#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "Oracle.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

namespace
{

constexpr unsigned int kMaxFileSize = 64u << 20;
constexpr int kChunk = 100000;
constexpr int kChunksPerMillion = 10;

double ThreadSeconds()
{
    timespec now = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

long ResidentKilobytes()
{
    long total = 0;
    long resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

long Descriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// Adds the sizes of the files that the log has left, and deletes them.
void Clear(const std::string& folder, bool all, unsigned long long& bytes)
{
    const std::string current = GetLogFilename();
    for (const auto& file : std::filesystem::directory_iterator(folder))
    {
        if (all || file.path() != current)
        {
            bytes += file.file_size();
            std::filesystem::remove(file.path());
        }
    }
}

} // namespace

int main(int count, char** arguments)
{
    const int millions = count > 1 ? std::atoi(arguments[1]) : 2;
    const ScratchFolder folder;
    LoggingSettings settings = {0, 0, 100, LOGGING_STRATEGY_FILE_SIZE, kMaxFileSize, 0};
    InitialiseLogging(true, ZR_LOG_WARNING, 1, (folder.Path() + "/soak.log").c_str());
    SetLoggingOptions(&settings);
    LogMessage(ZR_LOG_WARNING, 1, "Soak::Run() - ", "a line of some length, always the same 0123456789");
    ShutdownLogging();
    unsigned long long lineLength = 0;
    Clear(folder.Path(), true, lineLength);

    double first = 0;
    double last = 0;
    long resident = 0;
    long descriptors = 0;
    unsigned long long bytes = 0;
    for (int million = 0; million < millions; ++million)
    {
        double best = 1e9; // of ten chunks: what else runs on the machine makes some of them dearer
        for (int chunk = 0; chunk < kChunksPerMillion; ++chunk)
        {
            const double start = ThreadSeconds();
            for (int i = 0; i < kChunk; ++i)
            {
                LogMessage(ZR_LOG_WARNING, 1, "Soak::Run() - ", "a line of some length, always the same 0123456789");
            }
            best = std::min(best, ThreadSeconds() - start);
        }
        last = best / kChunk * 1e9;
        Clear(folder.Path(), false, bytes);
        if (million == 0)
        {
            first = last;
            resident = ResidentKilobytes();
            descriptors = Descriptors();
        }
    }
    const long residentGrowth = ResidentKilobytes() - resident;
    const long descriptorGrowth = Descriptors() - descriptors;
    ShutdownLogging();
    Clear(folder.Path(), true, bytes);
    const long long lost = millions * 1000000LL - static_cast<long long>(bytes / lineLength);
    const bool kept = lost == 0 && bytes % lineLength == 0 && residentGrowth <= 256 && descriptorGrowth == 0;
    std::printf("library  %-44s %-8s  %d million lines of %llu bytes: %lld lost; resident %+ld KB, descriptors %+ld; first "
                "million %.1f ns a line, last %.1f ns\n",
                "soak with rotation", kept ? "kept" : "BROKEN", millions, lineLength, lost, residentGrowth, descriptorGrowth,
                first, last);
    return kept ? 0 : 1;
}
