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
    for (std::span<void* const> rest = addresses; !rest.empty();)
    {
        const auto frames = rest.first(std::min(rest.size(), Unwind::FrameTexts::kMaxFrames));
        errno = ERANGE;
        Unwind::FrameTexts texts(frames);
        for (std::size_t i = 0; i < frames.size(); ++i)
        {
            char text[4096];
            texts.Format(i, text, sizeof text);
            EXPECT_EQ(errno, ERANGE);
            EXPECT_EQ(text, PlatformText(frames[i]));
        }
        rest = rest.subspan(frames.size());
    }
}

TEST(FrameText, EqualsBacktraceSymbols)
{
    void* const inNamespace = dlmopen(LM_ID_NEWLM, "libc.so.6", RTLD_NOW); // whose modules are in another list
    ASSERT_NE(inNamespace, nullptr) << dlerror();
    ExpectEqual({dlsym(inNamespace, "qsort")});
    dlclose(inNamespace);
    static int variable;
    std::vector<void*> addresses = {&variable, &addresses, &environ, nullptr, reinterpret_cast<void*>(-1L)};
    const auto add = [&](void* start, int from, int to, int step)
    {
        for (int offset = from; offset < to; offset += step)
        {
            addresses.push_back(static_cast<char*>(start) + offset);
        }
    };
    add(gNestedSymbols, 0, 8, 1);
    add(reinterpret_cast<void*>(getauxval(AT_SYSINFO_EHDR)), 0, 0x1000, 0xa00);
    for (const link_map* module = _r_debug.r_map; module != nullptr; module = module->l_next)
    {
        add(reinterpret_cast<void*>(module->l_addr), 0, 128, 8); // thread-local symbols have values as small as these
    }
    // Starts, middles and ends of functions and the gaps between them.
    for (const char* const name : {"qsort", "fopen", "_ZSt9terminatev", "_ZNSt9bad_allocD1Ev", "memcpy", "errno"})
    {
        add(dlsym(RTLD_DEFAULT, name), -40, 4000, 13);
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
        std::string text(size + 1, '!');
        texts.Format(0, text.data(), size);
        const std::string cut = text.substr(0, text.find('\0'));
        EXPECT_TRUE(cut.size() < size && text[size] == '!') << size;
        EXPECT_TRUE(cut.ends_with(tail) || size <= tail.size() + 2) << cut;
    }
}

} // namespace
