#include "ErrorHandlerDll/unwind/FrameText.h"

#include "ErrorHandlerDll/unwind/LoadedObjects.h"
#include "ErrorHandlerDll/unwind/StackWalk.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <execinfo.h>
#include <gtest/gtest.h>
#include <link.h>
#include <string>
#include <sys/auxv.h>
#include <vector>

namespace
{

int WalkFromHere(void** frames, int capacity)
{
    Unwind::FrameRegisters here;
    Unwind::CaptureRegisters(here);
    return Unwind::WalkStack(here, frames, capacity).count;
}

std::string PlatformText(void* address)
{
    char** texts = backtrace_symbols(&address, 1);
    std::string text = texts[0];
    std::free(texts);
    return text;
}

std::string OurText(const void* address)
{
    char text[4096];
    errno = ERANGE;
    void* const frame = const_cast<void*>(address);
    Unwind::FrameTexts texts({&frame, 1});
    texts.Format(0, text, sizeof(text));
    EXPECT_EQ(errno, ERANGE);
    return text;
}

// Eight symbols one inside the other, of which the nearest start counts, wherever it stands in the symbol table.
asm(R"(
    .pushsection .rodata
    .irp offset, 0, 1, 2, 3, 4, 5, 6, 7
    .globl gNestedSymbol\offset
    .type gNestedSymbol\offset, @object
    .set gNestedSymbol\offset, gNestedSymbols + \offset
    .size gNestedSymbol\offset, 8 - \offset
    .endr
gNestedSymbols:
    .zero 8
    .popsection
)");
extern "C" char gNestedSymbols[8];

std::vector<void*> AddressesOfAllKinds()
{
    std::vector<void*> addresses(100);
    addresses.resize(static_cast<std::size_t>(WalkFromHere(addresses.data(), 100)));
    static int variable;
    const auto vdso = reinterpret_cast<char*>(getauxval(AT_SYSINFO_EHDR));
    addresses.insert(addresses.end(), {reinterpret_cast<void*>(&PlatformText), reinterpret_cast<void*>(&std::printf),
                                       reinterpret_cast<void*>(&std::time), &variable, &addresses, addresses.data(), nullptr,
                                       reinterpret_cast<void*>(~std::uintptr_t{0}), reinterpret_cast<void*>(1), vdso,
                                       vdso + 0xa00, stdout, &environ});
    for (const link_map* module = _r_debug.r_map; module != nullptr; module = module->l_next)
        for (unsigned offset = 0; offset < 128; offset += 8) // thread-local symbols have values as small as these
            addresses.push_back(reinterpret_cast<void*>(module->l_addr + offset));
    for (char& start : gNestedSymbols)
        addresses.push_back(&start);
    // Starts, middles and ends of functions and the gaps between them.
    for (const char* name :
         {"qsort", "fopen", "_ZSt9terminatev", "_ZNSt9bad_allocD1Ev", "memcpy", "errno", "__libc_start_main"})
        if (auto* start = static_cast<char*>(dlsym(RTLD_DEFAULT, name)); start != nullptr)
            for (int offset = -40; offset < 4000; offset += 13)
                addresses.push_back(start + offset);
    return addresses;
}

TEST(FrameText, EqualsBacktraceSymbols)
{
    void* library = dlopen(PLUGIN, RTLD_NOW);
    ASSERT_NE(library, nullptr) << dlerror();
    void* onlySymbol = dlsym(library, "PluginEntry");
    EXPECT_EQ(OurText(onlySymbol), PlatformText(onlySymbol));
    EXPECT_NE(OurText(onlySymbol).find("(PluginEntry+0)"), std::string::npos);
    dlclose(library);
    void* const another = dlmopen(LM_ID_NEWLM, "libc.so.6", RTLD_NOW);
    ASSERT_NE(another, nullptr) << dlerror();
    EXPECT_EQ(OurText(dlsym(another, "qsort")), PlatformText(dlsym(another, "qsort")));
    dlclose(another);
    const std::vector<void*> addresses = AddressesOfAllKinds();
    for (std::size_t at = 0; at < addresses.size(); at += Unwind::FrameTexts::kMaxFrames)
    {
        const auto frames =
            std::span(addresses).subspan(at).first(std::min(addresses.size() - at, Unwind::FrameTexts::kMaxFrames));
        Unwind::FrameTexts texts(frames);
        for (std::size_t i = 0; i < frames.size(); ++i)
        {
            char text[4096];
            texts.Format(i, text, sizeof text);
            EXPECT_EQ(text, PlatformText(frames[i]));
        }
    }
}

TEST(FrameText, KeepsOffsetAndAddressWhenCut)
{
    char text[4096];
    auto* address = reinterpret_cast<char*>(dlsym(RTLD_DEFAULT, "_ZNSt9bad_allocD1Ev")) + 1;
    const std::string whole = OurText(address);
    const std::string tail = whole.substr(whole.rfind('+'));
    for (std::size_t size = 1; size < 100; ++size)
    {
        text[size] = '!';
        void* const frame = address;
        Unwind::FrameTexts texts({&frame, 1});
        texts.Format(0, text, size);
        const std::size_t length = std::strlen(text);
        EXPECT_EQ(text[size], '!') << size;
        EXPECT_LT(length, size);
        if (size > tail.size() + 2 && length < whole.size())
        {
            EXPECT_EQ(std::string(text).substr(length - tail.size()), tail) << size;
        }
    }
}

struct Listed
{
    std::vector<std::string> lines;
    bool damaged = false;
    int frames = 0; // of a stack walk beside it
};

Listed ListModules()
{
    Listed listed;
    void* frames[20];
    listed.frames = WalkFromHere(frames, 20);
    Unwind::MemoryReader reader;
    Unwind::ModuleList modules(reader);
    Unwind::Module module;
    while (modules.Next(module))
    {
        char name[4096];
        reader.ReadString(module.name, name, sizeof(name));
        listed.lines.push_back(std::to_string(module.loadAddress) + ' ' + name);
    }
    listed.damaged = modules.IsDamaged();
    return listed;
}

TEST(ModuleList, FollowsTheLinkersList)
{
    std::vector<std::string> expected;
    for (const link_map* module = _r_debug.r_map; module != nullptr; module = module->l_next)
        expected.push_back(std::to_string(module->l_addr) + ' ' + module->l_name);
    const Listed listed = ListModules();
    EXPECT_EQ(listed.lines, expected);
    EXPECT_FALSE(listed.damaged);
}

TEST(ModuleList, EndsWhenTheListIsDamaged)
{
    link_map* const first = _r_debug.r_map;
    link_map* const third = first->l_next->l_next;
    link_map* const fourth = third->l_next;
    for (link_map* wrong : {third, first, first->l_next, reinterpret_cast<link_map*>(0x10)})
    {
        third->l_next = wrong;
        const Listed listed = ListModules();
        third->l_next = fourth;
        EXPECT_TRUE(listed.damaged);
        EXPECT_GE(listed.lines.size(), 3u);
        EXPECT_LE(listed.lines.size(), 9u);
        EXPECT_GE(listed.frames, 1);
    }
    _r_debug.r_map = nullptr;
    const Listed listed = ListModules();
    _r_debug.r_map = first;
    EXPECT_TRUE(listed.damaged);
    EXPECT_EQ(listed.frames, 1);
}

} // namespace
