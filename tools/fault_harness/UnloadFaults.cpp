// Loads and unloads the library again and again: the log is whole each time, and the process does not grow.
// faults_unload LIBRARY [ROUNDS]
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <string>
#include <unistd.h>

namespace
{

constexpr int kLines = 50;

struct Size
{
    std::size_t m_heap;
    long m_pages;
    long m_descriptors;
    long m_mappings;
};

Size Measure()
{
    long total = 0;
    long resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    std::ifstream maps("/proc/self/maps");
    long mappings = 0;
    for (std::string line; std::getline(maps, line);)
    {
        ++mappings;
    }
    const auto descriptors = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    return {mallinfo2().uordblks, resident, descriptors, mappings};
}

long CountLines(const std::string& path)
{
    std::ifstream file(path);
    long lines = 0;
    for (std::string line; std::getline(file, line);)
    {
        ++lines;
    }
    return lines;
}

bool LoadOnce(const char* library, const std::string& path)
{
    void* const handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr)
    {
        std::fprintf(stderr, "%s\n", dlerror());
        return false;
    }
    const auto initialise =
        reinterpret_cast<void (*)(bool, int, unsigned int, const char*)>(dlsym(handle, "InitialiseLogging"));
    const auto log = reinterpret_cast<bool (*)(int, unsigned int, const char*, const char*)>(dlsym(handle, "LogMessage"));
    const auto add = reinterpret_cast<bool (*)(int, const char*)>(dlsym(handle, "AddCustomErrorMessage"));
    initialise(true, 3, 1, path.c_str());
    for (int i = 0; i < kLines; ++i)
    {
        log(0, 1, "", "line");
        add(0x10000 + i, "text");
    }
    dlclose(handle);
    return dlopen(library, RTLD_NOW | RTLD_NOLOAD) == nullptr;
}

} // namespace

int main(int count, char** arguments)
{
    const int rounds = count > 2 ? std::atoi(arguments[2]) : 1000;
    constexpr int kWarmUp = 10;
    const std::string path = "/dev/shm/faults_unload." + std::to_string(getpid()) + ".log";
    int incomplete = 0;
    int pinned = 0;
    Size before = {};
    for (int round = 0; round < rounds + kWarmUp; ++round)
    {
        if (round == kWarmUp)
        {
            before = Measure();
        }
        std::filesystem::remove(path);
        pinned += LoadOnce(arguments[1], path) ? 0 : 1;
        incomplete += CountLines(path) == kLines ? 0 : 1;
    }
    const Size after = Measure();
    std::filesystem::remove(path);
    const long heap = static_cast<long>(after.m_heap) - static_cast<long>(before.m_heap);
    const bool kept = pinned == 0 && incomplete == 0 && heap < rounds && after.m_descriptors == before.m_descriptors &&
                      after.m_mappings <= before.m_mappings + 1;
    std::printf("library  %-44s %-8s  %d rounds: %d logs incomplete, %d times not unloaded; heap %+ld bytes, resident %+ld "
                "pages, descriptors %+ld, mappings %+ld\n",
                "dlopen, log, dlclose", kept ? "kept" : "BROKEN", rounds, incomplete, pinned, heap,
                after.m_pages - before.m_pages, after.m_descriptors - before.m_descriptors,
                after.m_mappings - before.m_mappings);
    return kept ? 0 : 1;
}
