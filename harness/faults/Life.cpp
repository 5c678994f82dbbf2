// A long life: many lines to numbered files that are deleted on the way, and the library loaded and unloaded again and
// again. The process does not grow.
#include "harness/faults/Oracle.h"

#include <dlfcn.h>
#include <malloc.h>
#include <valarray>

namespace
{

// Bytes of heap, pages of memory, descriptors.
std::valarray<long> Measure()
{
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const auto descriptors = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    return {static_cast<long>(mallinfo2().uordblks), pages, descriptors};
}

// `round` returns whether its log is whole.
void StayFlat(const char* name, int rounds, const std::function<bool()>& round)
{
    constexpr int kWarmUp = 5;
    int broken = 0;
    std::valarray<long> more;
    for (int i = -kWarmUp; i < rounds; ++i)
    {
        more = i <= 0 ? Measure() : more;
        broken += round() ? 0 : 1;
    }
    more = Measure() - more;
    const bool isFlat = more[0] <= 16 * rounds && more[1] <= 64 && more[2] == 0; // no block a round
    Report(name, Verdict(), broken == 0 && isFlat,
           {{"broken", broken}, {"bytes of heap", more[0]}, {"pages", more[1]}, {"descriptors", more[2]}});
}

} // namespace

void Rotate(int scale)
{
    const auto round = []
    {
        const LogFolder folder(200000, 101);
        LogLines(10000);
        return folder.Close().IsKept();
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
    const auto round = [&]
    {
        const TemporaryFolder folder;
        void* const handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
        const auto initialise = reinterpret_cast<decltype(&InitialiseLogging)>(dlsym(handle, "InitialiseLogging"));
        const auto log = reinterpret_cast<decltype(&LogMessage)>(dlsym(handle, "LogMessage"));
        const auto add = reinterpret_cast<decltype(&AddCustomErrorMessage)>(dlsym(handle, "AddCustomErrorMessage"));
        initialise(true, ZR_LOG_WARNING, 1, (folder / "app.log").c_str());
        log(ZR_LOG_WARNING, 1, "", "line");
        add(ZR_CUSTOM_ERROR_FIRST, "text");
        dlclose(handle);
        return ReadFile(folder / "app.log").ends_with("line\n") &&
               dlopen(library.c_str(), RTLD_NOW | RTLD_NOLOAD) == nullptr;
    };
    StayFlat("dlopen, log, dlclose", 100 * scale, round);
}
