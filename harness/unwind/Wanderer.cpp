// A program that is anywhere when it is stopped: in libc, the loader, libstdc++, a plug-in. At SIGUSR1 it walks its stack,
// and compare_walks.py compares that with a debugger's idea of it.
#include "ErrorHandlerDll/unwind/StackWalk.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <iostream>
#include <map>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/time.h>
#include <ucontext.h>
#include <vector>

extern "C"
{
    constexpr int kCapacity = 100;
    void* gFrames[kCapacity];
    Unwind::WalkResult gResult;
    const void* gContext;

    [[gnu::noinline]] void OnWalked() // where the debugger waits
    {
        asm volatile("");
    }
}

namespace
{

unsigned gRandom = 1;
const char* gPlugin;
volatile double gSink;

unsigned Random()
{
    gRandom = gRandom * 1103515245 + 12345;
    return gRandom >> 8;
}

void Walk(int, siginfo_t*, void* context)
{
    Unwind::FrameRegisters here;
    Unwind::CaptureRegisters(here);
    gContext = context;
    gResult = Unwind::WalkStack(here, gFrames, kCapacity);
    OnWalked();
}

int CompareNumbers(const void* left, const void* right)
{
    return *static_cast<const int*>(left) - *static_cast<const int*>(right);
}

void UseC()
{
    int numbers[50];
    for (int& number : numbers)
        number = static_cast<int>(Random() % 1000);
    std::qsort(numbers, std::size(numbers), sizeof numbers[0], CompareNumbers);
    char text[200];
    std::snprintf(text, sizeof text, "%d %s %.3f %lx", numbers[0], "text", numbers[1] / 3.0, 77L);
    gSink = std::strtod("3.25e7", nullptr) + static_cast<double>(std::strlen(text));
    const std::time_t now = std::time(nullptr);
    tm parts;
    std::strftime(text, sizeof text, "%H:%M", localtime_r(&now, &parts));
    std::free(std::realloc(std::malloc(Random() % 5000), Random() % 90000));
}

void UseStandardLibrary()
{
    std::map<std::string, int> words;
    std::ostringstream stream;
    for (int i = 0; i < 20; ++i)
    {
        stream << "word" << Random() % 10 << ' ' << 1.5 * i;
        ++words[stream.str()];
    }
    std::vector<std::string> sorted;
    for (const auto& [word, count] : words)
        sorted.push_back(word + std::to_string(count));
    std::sort(sorted.rbegin(), sorted.rend());
    gSink = std::regex_search(sorted[0], std::regex("w(o|x)rd[0-9]+")) ? 1 : 0;
}

[[gnu::noinline]] void ThrowBelow(unsigned depth)
{
    const std::string owned(depth + 20, 'x'); // something to clean up
    if (depth == 0)
        throw std::runtime_error(owned);
    ThrowBelow(depth - 1);
    gSink = static_cast<double>(owned.size());
}

void UseExceptions()
{
    try
    {
        ThrowBelow(Random() % 6);
    }
    catch (const std::exception& error)
    {
        gSink = static_cast<double>(std::strlen(error.what()));
    }
}

void UsePlugin()
{
    void* const plugin = dlopen(gPlugin, Random() % 2 == 0 ? RTLD_LAZY : RTLD_NOW);
    int target = 0;
    if (plugin == nullptr)
        std::abort();
    for (int i = 0; i < 100; ++i)
        reinterpret_cast<void (*)(int*)>(dlsym(plugin, "PluginEntry"))(&target);
    dlclose(plugin);
}

} // namespace

int main(int, char** arguments)
{
    gPlugin = arguments[1];
    struct sigaction action = {};
    action.sa_sigaction = Walk;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGUSR1, &action, nullptr);
    const itimerval timer = {{0, 4000}, {0, 4000}};
    setitimer(ITIMER_PROF, &timer, nullptr); // the debugger stops there and keeps the signal to itself
    // The debugger takes long over each object that comes or goes.
    void (*const uses[])() = {UseC, UseStandardLibrary, UseExceptions, UseC,     UseStandardLibrary, UseExceptions,
                              UseC, UseStandardLibrary, UseExceptions, UsePlugin};
    for (;;)
        uses[Random() % std::size(uses)]();
}
