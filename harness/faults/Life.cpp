// A long life: many lines to numbered files that are deleted on the way, and the library loaded and unloaded again and
// again. The process does not grow.
#include "harness/faults/Oracle.h"

#include <algorithm>
#include <array>
#include <dlfcn.h>
#include <malloc.h>

namespace
{

// Bytes of heap, pages of memory, descriptors.
using Sizes = std::array<long, 3>;

Sizes Measure()
{
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const auto descriptors = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    return {static_cast<long>(mallinfo2().uordblks), pages, descriptors};
}

// `round` returns whether the log is whole.
void StayFlat(const char* name, int rounds, const std::function<bool(const LogFolder& folder)>& round)
{
    constexpr int kWarmUp = 5;
    const Sizes allowed = {16 * rounds, 64, 0}; // no block a round
    int broken = 0;
    Sizes more = {};
    for (int i = -kWarmUp; i < rounds; ++i)
    {
        const LogFolder folder;
        more = i == 0 ? Measure() : more;
        broken += round(folder) ? 0 : 1;
    }
    const Sizes after = Measure();
    std::transform(after.begin(), after.end(), more.begin(), more.begin(), std::minus());
    Report(name, Verdict(), broken == 0 && std::equal(more.begin(), more.end(), allowed.begin(), std::less_equal()),
           "%d rounds, %d broken: heap %+ld bytes, pages %+ld, descriptors %+ld", rounds, broken, more[0], more[1], more[2]);
}

} // namespace

void Rotate(int scale)
{
    const auto round = [](const LogFolder& folder)
    {
        OpenLog(folder.Path(), 200000, 101);
        LogLines(10000);
        ShutdownLogging();
        return Verdict(folder.Path()).IsKept();
    };
    StayFlat("10,000 lines to numbered files, deleted", 40 * scale, round);
}

// Another copy of the library than the one that this program is linked with.
void Unload(int scale)
{
    const TemporaryFolder other;
    const std::string library = other / "copy.so";
    Dl_info info = {};
    dladdr(reinterpret_cast<void*>(&InitialiseLogging), &info);
    std::filesystem::copy_file(info.dli_fname, library);
    const auto round = [&](const LogFolder& folder)
    {
        constexpr int kLines = 50;
        void* const handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
        const auto initialise = reinterpret_cast<decltype(&InitialiseLogging)>(dlsym(handle, "InitialiseLogging"));
        const auto log = reinterpret_cast<decltype(&LogMessage)>(dlsym(handle, "LogMessage"));
        const auto add = reinterpret_cast<decltype(&AddCustomErrorMessage)>(dlsym(handle, "AddCustomErrorMessage"));
        initialise(true, ZR_LOG_WARNING, 1, (folder / "app.log").c_str());
        for (int i = 0; i < kLines; ++i)
        {
            log(ZR_LOG_WARNING, 1, "", "line");
            add(static_cast<ZelvoReaderErrorCode>(ZR_CUSTOM_ERROR_FIRST + i), "text");
        }
        dlclose(handle);
        const std::string text = ReadFile(folder / "app.log");
        return std::count(text.begin(), text.end(), '\n') == kLines &&
               dlopen(library.c_str(), RTLD_NOW | RTLD_NOLOAD) == nullptr;
    };
    StayFlat("dlopen, log, dlclose", 100 * scale, round);
}
