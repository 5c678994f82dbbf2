// A long life: many lines to numbered files that are deleted on the way, and the library loaded and unloaded again and
// again. The process does not grow.
#include "harness/faults/Oracle.h"

#include <algorithm>
#include <dlfcn.h>
#include <malloc.h>

namespace
{

struct Sizes
{
    long m_heap = static_cast<long>(mallinfo2().uordblks);
    long m_descriptors = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    long m_pages = 0;

    Sizes() { std::ifstream("/proc/self/statm") >> m_pages; }
};

// `round` returns whether its log is whole.
void StayFlat(const char* name, int rounds, const std::function<bool()>& round)
{
    int broken = 0;
    for (int i = 0; i < 5; ++i) // what is allocated once and for all
    {
        round();
    }
    const Sizes before;
    for (int i = 0; i < rounds; ++i)
    {
        broken += round() ? 0 : 1;
    }
    const Sizes after;
    const long heap = after.m_heap - before.m_heap;
    const long pages = after.m_pages - before.m_pages;
    const long descriptors = after.m_descriptors - before.m_descriptors;
    const bool isFlat = heap <= 16 * rounds && pages <= 64 && descriptors == 0; // no block a round
    Report(name, Verdict(), broken == 0 && isFlat,
           {{"broken", broken}, {"bytes of heap", heap}, {"pages", pages}, {"descriptors", descriptors}});
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
        constexpr int kLines = 50;
        const TemporaryFolder folder;
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
