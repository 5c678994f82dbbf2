#include "ErrorHandlerDll/unwind/FrameText.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <dlfcn.h>
#include <execinfo.h>
#include <gtest/gtest.h>
#include <iterator>
#include <link.h>
#include <memory>
#include <string>
#include <sys/auxv.h>
#include <vector>

namespace
{

std::string PlatformText(void* address)
{
    const std::unique_ptr<char*, decltype(&std::free)> texts(backtrace_symbols(&address, 1), std::free);
    return *texts;
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

void ExpectEqual(const std::vector<void*>& addresses)
{
    const std::size_t most = Unwind::FrameTexts::kMaxFrames;
    for (std::size_t at = 0; at < addresses.size(); at += most)
    {
        const auto frames = std::span(addresses).subspan(at, std::min(addresses.size() - at, most));
        errno = ERANGE;
        Unwind::FrameTexts texts(frames);
        for (std::size_t i = 0; i < frames.size(); ++i)
        {
            char text[4096];
            texts.Format(i, text, sizeof text);
            EXPECT_EQ(errno, ERANGE);
            EXPECT_EQ(text, PlatformText(frames[i]));
        }
    }
}

TEST(FrameText, EqualsBacktraceSymbols)
{
    void* const inNamespace = dlmopen(LM_ID_NEWLM, "libc.so.6", RTLD_NOW); // whose modules are in another list
    ASSERT_NE(inNamespace, nullptr) << dlerror();
    ExpectEqual({dlsym(inNamespace, "qsort")});
    dlclose(inNamespace);
    static int variable;
    const auto vdso = reinterpret_cast<char*>(getauxval(AT_SYSINFO_EHDR));
    std::vector<void*> addresses = {reinterpret_cast<void*>(PlatformText),       &variable, &addresses,   nullptr,
                                    reinterpret_cast<void*>(~std::uintptr_t{0}), vdso,      vdso + 0xa00, &environ};
    for (const link_map* module = _r_debug.r_map; module != nullptr; module = module->l_next)
    {
        for (unsigned offset = 0; offset < 128; offset += 8) // thread-local symbols have values as small as these
        {
            addresses.push_back(reinterpret_cast<void*>(module->l_addr + offset));
        }
    }
    std::transform(gNestedSymbols, gNestedSymbols + 8, std::back_inserter(addresses), [](char& start) { return &start; });
    // Starts, middles and ends of functions and the gaps between them.
    for (const char* const name : {"qsort", "fopen", "_ZSt9terminatev", "_ZNSt9bad_allocD1Ev", "memcpy", "errno"})
    {
        auto* const start = static_cast<char*>(dlsym(RTLD_DEFAULT, name));
        for (int offset = -40; start != nullptr && offset < 4000; offset += 13)
        {
            addresses.push_back(start + offset);
        }
    }
    ExpectEqual(addresses);
}

TEST(FrameText, KeepsOffsetAndAddressWhenCut)
{
    void* const address = static_cast<char*>(dlsym(RTLD_DEFAULT, "_ZNSt9bad_allocD1Ev")) + 1;
    const std::string whole = PlatformText(address);
    const std::string tail = whole.substr(whole.rfind('+'));
    Unwind::FrameTexts texts({&address, 1});
    for (std::size_t size = 1; size < 100; ++size)
    {
        char text[101];
        text[size] = '!';
        texts.Format(0, text, size);
        const std::string cut = text;
        EXPECT_EQ(text[size], '!') << size;
        EXPECT_LT(cut.size(), size);
        EXPECT_TRUE(cut.ends_with(tail) || size <= tail.size() + 2) << cut;
    }
}

} // namespace
