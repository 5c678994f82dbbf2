#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/ExceptionHandler.h"
#include "ErrorHandlerDll/HalvikException.h"
#include "ErrorHandlerDll/LinuxStructuredException.h"
#include "support/LogTest.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <link.h>
#include <memory>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace
{

// What a call prints to standard output.
template <class Call>
std::string PrintedBy(const Call& print)
{
    testing::internal::CaptureStdout();
    print();
    return testing::internal::GetCapturedStdout();
}

// The exception without the dump that its construction prints.
StructuredException MakeQuietly(int signal, int code, std::uintptr_t address)
{
    ucontext_t context{};
    for (int i = 0; i < NGREG; ++i)
    {
        context.uc_mcontext.gregs[i] = i % 2 == 0 ? i : -i;
    }
    siginfo_t info{};
    info.si_code = code;
    info.si_addr = reinterpret_cast<void*>(address);
    testing::internal::CaptureStdout();
    const StructuredException exception(signal, &context, &info);
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
        std::string message;
    } rows[] = {
        {SIGILL, 2, 0x1000, "Illegal Instruction (00000002) occurred at 0x1000"},
        {SIGBUS, 3, 0x1000, "Bus error (00000003) occurred at 0x1000"},
        {SIGFPE, 1, 0xABC, "Floating Point Exception (00000001) occurred at 0xabc"},
        {SIGSEGV, 0x80, 0, "Segmentation fault (00000080) occurred at (nil)"},
        {SIGABRT, -6, 1, "Unknown (fffffffa) occurred at 0x1"},
    };
    const char* const shared = MakeQuietly(SIGUSR1, 0, 0).GetErrorMessage();
    for (const auto& row : rows)
    {
        StructuredException exception = MakeQuietly(row.signal, row.code, row.address);
        EXPECT_EQ(row.message.substr(0, row.message.find(" (")), exception.GetExceptionString());
        EXPECT_EQ(row.code, exception.GetExceptionCode());
        exception.GetErrorMessage();
        EXPECT_EQ(row.message, shared);
    }
    for (int code = 0; code <= 3; ++code)
    {
        const char* const name = code == 1 ? "SEGV_MAPERR" : code == 2 ? "SEGV_ACCERR" : "";
        EXPECT_STREQ(name, StructuredException::GetExceptionName(code));
    }
}

TEST(StructuredException, IsHandledLikeAnyOtherError)
{
    StructuredException exception = MakeQuietly(SIGBUS, 2, 0);
    const CapturedLog log(5);
    std::unique_ptr<HalvikException> propagated;
    const std::string headline = "Structured exception Bus error (code 00000002) occurred at (nil)\n";
    const std::string printed =
        PrintedBy([&] { propagated.reset(ExceptionHandler::HandleStructuredException("F - ", exception, true)); });
    EXPECT_TRUE(printed.starts_with("F - \n" + headline + "  Fault address:  (nil)\n")) << printed;
    EXPECT_EQ(2, ExceptionHandler::m_lastErrorCode);
    EXPECT_STREQ("Bus error (00000002) occurred at (nil)", ExceptionHandler::m_lastErrorString);
    ASSERT_TRUE(propagated);
    EXPECT_STREQ("Bus error (00000002) occurred at (nil)", propagated->GetErrorString());
    EXPECT_TRUE(propagated->GetErrorCode() == 2 && propagated->GetHandled());
    const std::string text = Joined(log.GetLines());
    std::size_t last = 0;
    for (const std::string& part :
         {std::string("ERROR|----------------------\n"), std::string("DumpExceptionContext() - [Entering]\n"),
          "ERROR|F - " + headline, std::string("GenerateCallStack() - [Entering]\nERROR|  Call stack:\n"),
          std::string("GenerateCallStack() - [Exiting]\nERROR|\nERROR|  Registers:\nERROR|reg[00] = 0x0\n"),
          std::string("ERROR|reg[01] = 0xffffffffffffffff\n"), std::string("ERROR|reg[22] = 0x16\n"),
          std::string("GenerateModuleAddresses() - [Entering]\nERROR|\nERROR|  Modules list:\n"),
          std::string("GenerateModuleAddresses() - [Exiting]\n"), std::string("DumpExceptionContext() - [Exiting]\n")})
    {
        EXPECT_TRUE(text.find(part, last) != std::string::npos) << part << text;
        last = std::min(text.find(part, last), text.size());
    }
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
    std::string path = std::string(room - 1, 'x') + "\u00E9"; // a character that does not fit
    first->l_name = path.data();
    EXPECT_TRUE(list().starts_with(prefix + path.substr(0, room - 1) + "\n"));
    first->l_name = name;
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
    constexpr std::size_t kSize = 4096;
    const int file = memfd_create("page", 0);
    ASSERT_EQ(0, ftruncate(file, kSize));
    auto* const page = static_cast<char*>(mmap(nullptr, 2 * kSize, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
    close(file);
    std::memcpy(page + kSize - 8, "ABC\0\x1F\x20\x7F\x80", 8);
    const auto expectTheEndOfThePage = [&]
    {
        expectDump(reinterpret_cast<std::uintptr_t>(page) + kSize - 8, "41 42 43 00 1f 20 7f 80 ", "ABC.. \x7F.");
    };
    expectTheEndOfThePage(); // behind it is no more of the file
    mprotect(page + kSize, kSize, PROT_NONE);
    expectTheEndOfThePage();
    munmap(page + kSize, kSize);
    expectTheEndOfThePage();
    munmap(page, kSize);
    expectDump(0, "?? ?? ?? ?? ?? ?? ?? ?? ", "........");
    expectDump(UINTPTR_MAX - 100, "?? ?? ?? ?? ?? ?? ?? ?? ", "........");
}
