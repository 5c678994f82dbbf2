#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/ExceptionHandler.h"
#include "ErrorHandlerDll/HalvikException.h"
#include "ErrorHandlerDll/LinuxStructuredException.h"
#include "support/LogTest.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <link.h>
#include <memory>
#include <regex>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace
{

std::string PrintedBy(const std::function<void()>& print)
{
    testing::internal::CaptureStdout();
    print();
    return testing::internal::GetCapturedStdout();
}

StructuredException MakeException(int signal, int code, std::uintptr_t address)
{
    ucontext_t context{};
    for (int i = 0; i < NGREG; ++i)
    {
        context.uc_mcontext.gregs[i] = i % 2 == 0 ? i : -i;
    }
    siginfo_t info{};
    info.si_signo = signal;
    info.si_code = code;
    info.si_addr = reinterpret_cast<void*>(address);
    return StructuredException(signal, &context, &info);
}

// The exception without the dump that its construction prints.
StructuredException MakeQuietly(int signal, int code, std::uintptr_t address)
{
    testing::internal::CaptureStdout();
    const StructuredException exception = MakeException(signal, code, address);
    testing::internal::GetCapturedStdout();
    return exception;
}

std::string Joined(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines)
    {
        text += line + "\n";
    }
    return text;
}

} // namespace

TEST(StructuredException, DescribesTheSignal)
{
    const struct
    {
        int signal;
        int code;
        std::uintptr_t address;
        const char* name;
        const char* message;
    } rows[] = {
        {SIGILL, 2, 0x1000, "Illegal Instruction", "Illegal Instruction (00000002) occurred at 0x1000"},
        {SIGBUS, 3, 0x1000, "Bus error", "Bus error (00000003) occurred at 0x1000"},
        {SIGFPE, 1, 0xABC, "Floating Point Exception", "Floating Point Exception (00000001) occurred at 0xabc"},
        {SIGSEGV, 0x80, 0, "Segmentation fault", "Segmentation fault (00000080) occurred at (nil)"},
        {SIGABRT, -6, 1, "Unknown", "Unknown (fffffffa) occurred at 0x1"},
    };
    const char* const shared = MakeQuietly(SIGUSR1, 0, 0).GetErrorMessage();
    for (const auto& row : rows)
    {
        StructuredException exception = MakeQuietly(row.signal, row.code, row.address);
        EXPECT_STREQ(row.name, exception.GetExceptionString());
        EXPECT_EQ(row.code, exception.GetExceptionCode());
        exception.GetErrorMessage();
        EXPECT_STREQ(row.message, shared);
    }
    const char* const names[] = {"", "", "SEGV_MAPERR", "SEGV_ACCERR", ""};
    for (int code = -1; code <= 3; ++code)
    {
        EXPECT_STREQ(names[code + 1], StructuredException::GetExceptionName(code));
    }
}

TEST(StructuredException, DumpsToStandardOutputAndLog)
{
    std::string registers;
    std::string loggedRegisters;
    for (long long i = 0; i < 23; ++i)
    {
        char line[100];
        std::snprintf(line, sizeof line, "reg\\[%02lld\\] = 0x%llx\n", i,
                      static_cast<unsigned long long>(i % 2 == 0 ? i : -i));
        registers += line;
        loggedRegisters += std::string("E") + line;
    }
    const std::string headline = R"(Structured exception Segmentation fault \(code 00000002\) occurred at 0x1234)";
    const std::regex printed(
        R"(StructuredException::StructuredException\n)" + headline +
        R"(\n  Fault address:  0x1234\nGenerateCallStack...\nCall stack\n(\S+\(.*\) \[0x[0-9a-f]+\]\n)+)" +
        R"(Finished GenerateCallStack\nRegisters...\n)" + registers + R"(GenerateModuleAddresses...\n)" +
        R"((    \([0-9a-f]+\) .*\n)+Done\nFinished GenerateModuleAddresses\n)");
    const std::regex logged(
        R"(DumpExceptionContext\(\) - \[Entering\]\nEStructuredException::StructuredException)" + headline +
        R"(\nE  Fault address:  0x1234\nGenerateCallStack\(\) - \[Entering\]\nE  Call stack:\n(E     \S+\(.*\) \[0x[0-9a-f]+\]\n)+)" +
        R"(GenerateCallStack\(\) - \[Exiting\]\nE\nE  Registers:\n)" + loggedRegisters +
        R"(E\nGenerateModuleAddresses\(\) - \[Entering\]\nE\nE  Modules list:\n(E    \([0-9a-f]+\) .*\n)+E\n)" +
        R"(GenerateModuleAddresses\(\) - \[Exiting\]\nDumpExceptionContext\(\) - \[Exiting\]\n)");
    for (const bool logs : {true, false})
    {
        const CapturedLog log(5, ZR_LOG_ALL_CATEGORIES, logs);
        const std::string output = PrintedBy([] { MakeException(SIGSEGV, 2, 0x1234); });
        EXPECT_TRUE(std::regex_match(output, printed)) << output;
        std::string text = Joined(log.GetLines());
        text = std::regex_replace(text, std::regex(R"(Level 5\|ErrorHandlerDll/LinuxStructuredException.cpp\(N\) : )"), "");
        text = std::regex_replace(text, std::regex(R"(ERROR\|)"), "E");
        EXPECT_EQ(logs, std::regex_match(text, logged)) << text;
        EXPECT_EQ(logs, !text.empty());
    }
}

TEST(StructuredException, IsHandledLikeAnyOtherError)
{
    StructuredException exception = MakeQuietly(SIGBUS, 2, 0);
    const CapturedLog log(ZR_LOG_ERROR);
    std::unique_ptr<HalvikException> propagated;
    const auto handle = [&]
    {
        propagated.reset(ExceptionHandler::HandleStructuredException("F - ", exception, true));
    };
    EXPECT_TRUE(PrintedBy(handle).starts_with("F - \n"));
    EXPECT_EQ(2, ExceptionHandler::m_lastErrorCode);
    EXPECT_STREQ("Bus error (00000002) occurred at (nil)", ExceptionHandler::m_lastErrorString);
    ASSERT_TRUE(propagated);
    EXPECT_STREQ("Bus error (00000002) occurred at (nil)", propagated->GetErrorString());
    EXPECT_TRUE(propagated->GetErrorCode() == 2 && propagated->GetHandled());
    EXPECT_EQ("ERROR|----------------------", log.GetLines()[0]);
    EXPECT_EQ("ERROR|F - Structured exception Bus error (code 00000002) occurred at (nil)", log.GetLines()[1]);
}

TEST(StructuredException, ListsModulesWithinTheirLimitsAndTellsOfDamage)
{
    StructuredException exception = MakeQuietly(SIGSEGV, 1, 0);
    const auto list = [&]
    {
        return PrintedBy([&] { exception.GenerateModuleAddresses(); });
    };
    link_map* const first = _r_debug.r_map;
    char* const name = first->l_name;
    const std::string whole = list();
    const std::string prefix = whole.substr(0, whole.find('\n'));
    const std::size_t room = 309 - prefix.size();
    for (const std::string& path : {std::string(room, 'x'), std::string(4000, 'x'), std::string(room - 1, 'x') + "\u00E9"})
    {
        std::string replaced = path;
        first->l_name = replaced.data();
        const std::string listed = list();
        first->l_name = name;
        const std::size_t shown = path.ends_with('x') ? room : room - 1;
        EXPECT_TRUE(listed.starts_with(prefix + path.substr(0, shown) + "\n")) << listed;
    }
    const std::string damaged = "    The list of modules is damaged\nDone\n";
    link_map* const third = first->l_next->l_next;
    link_map* const fourth = third->l_next;
    for (link_map* const wrong : {third, first, first->l_next, reinterpret_cast<link_map*>(0x10)})
    {
        third->l_next = wrong;
        const std::string listed = list();
        third->l_next = fourth;
        EXPECT_TRUE(listed.starts_with(prefix + "\n" + whole.substr(prefix.size() + 1, 50))) << listed;
        EXPECT_TRUE(listed.ends_with(damaged) && std::count(listed.begin(), listed.end(), '\n') <= 11) << listed;
    }
    _r_debug.r_map = nullptr;
    const std::string none = list();
    _r_debug.r_map = first;
    EXPECT_EQ(damaged, none);
}

TEST(StructuredException, DumpsMemoryThatMayBeUnreadable)
{
    enum Behind
    {
        NO_ACCESS,
        UNMAPPED,
        PAST_END_OF_FILE,
    };
    StructuredException exception = MakeQuietly(SIGSEGV, 1, 0);
    const auto expectDump = [&](std::uintptr_t start, const std::string& hex, const std::string& text)
    {
        const std::string unreadable = "?? ?? ?? ?? ?? ?? ?? ?? ";
        std::string expected = "ERROR|  Raw stack dump:\n";
        for (std::uintptr_t i = 0; i < 20; ++i)
        {
            char address[50];
            std::snprintf(address, sizeof address, "ERROR|    %p  ", reinterpret_cast<void*>(start + 16 * i));
            expected +=
                address + (i == 0 ? hex : unreadable) + unreadable + "  " + (i == 0 ? text : "........") + "........\n";
        }
        const CapturedLog log(ZR_LOG_ERROR);
        EXPECT_EQ("", PrintedBy([&] { exception.GenerateStackDump(reinterpret_cast<unsigned char*>(start)); }));
        EXPECT_EQ(expected + "ERROR|\n", Joined(log.GetLines()));
    };
    for (const auto behind : {NO_ACCESS, UNMAPPED, PAST_END_OF_FILE})
    {
        constexpr std::size_t kSize = 4096;
        const int file = memfd_create("page", 0);
        ASSERT_EQ(0, ftruncate(file, kSize));
        auto* const page = static_cast<char*>(mmap(nullptr, 2 * kSize, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
        close(file);
        std::memcpy(page + kSize - 8, "ABC\0\x1F\x20\x7F\x80", 8);
        behind == NO_ACCESS  ? mprotect(page + kSize, kSize, PROT_NONE)
        : behind == UNMAPPED ? munmap(page + kSize, kSize)
                             : 0;
        expectDump(reinterpret_cast<std::uintptr_t>(page) + kSize - 8, "41 42 43 00 1f 20 7f 80 ", "ABC.. \x7F.");
        munmap(page, 2 * kSize);
    }
    expectDump(0, "?? ?? ?? ?? ?? ?? ?? ?? ", "........");
    expectDump(UINTPTR_MAX - 100, "?? ?? ?? ?? ?? ?? ?? ?? ", "........");
}
