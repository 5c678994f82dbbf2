// What it costs to load a library: bench_load PATH writes the nanoseconds of its dlopen and the KiB of private memory that
// the process has more afterwards, with what else had to be loaded for it. One process, one loading.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

namespace
{

long PrivateKiB()
{
    char text[4096] = "";
    const int file = open("/proc/self/smaps_rollup", O_RDONLY); // past stdio, which takes memory itself
    const bool isRead = read(file, text, sizeof text - 1) > 0;
    close(file);
    const char* const line = isRead ? std::strstr(text, "Private_Dirty:") : nullptr;
    long size = 0;
    return line != nullptr && std::sscanf(line, "Private_Dirty: %ld", &size) == 1 ? size : 0;
}

} // namespace

int main(int count, char** arguments)
{
    std::printf("%s", ""); // makes the stream's buffer before
    const long before = PrivateKiB();
    const auto start = std::chrono::steady_clock::now();
    const bool isLoaded = count > 1 && dlopen(arguments[1], RTLD_NOW) != nullptr;
    const std::chrono::nanoseconds duration = std::chrono::steady_clock::now() - start;
    if (!isLoaded)
    {
        std::fprintf(stderr, "bench_load: %s\n", count > 1 ? dlerror() : "no library");
        return 1;
    }
    std::printf("%lld %ld\n", static_cast<long long>(duration.count()), PrivateKiB() - before);
    return 0;
}
