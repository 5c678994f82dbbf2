#include "ErrorHandlerDll/ExceptionHandler.h"
#include "ErrorHandlerDll/HalvikException.h"
#include "ErrorHandlerDll/LinuxStructuredException.h"
#include "support/LogTest.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <link.h>
#include <memory>
#include <sys/mman.h>
#include <utility>

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
    context.uc_mcontext.gregs[1] = -1;
    siginfo_t info{};
    info.si_code = code;
    info.si_addr = reinterpret_cast<void*>(address);
    testing::internal::CaptureStdout();
    const StructuredException exception(signal, &context, &info);
    testing::internal::GetCapturedStdout();
    return exception;
}

} // namespace

TEST(StructuredException, DescribesTheSignal)
{
    const struct
    {
        int signal, code;
        std::uintptr_t address;
        const char *message, *name;
    } rows[] = {
        {SIGILL, 2, 0x1000, "Illegal Instruction (00000002) occurred at 0x1000", "SEGV_ACCERR"},
        {SIGBUS, 3, 0x1000, "Bus error (00000003) occurred at 0x1000", ""},
        {SIGFPE, 1, 0xABC, "Floating Point Exception (00000001) occurred at 0xabc", "SEGV_MAPERR"},
        {SIGSEGV, 0x80, 0, "Segmentation fault (00000080) occurred at (nil)", ""},
        {SIGABRT, -6, 1, "Unknown (fffffffa) occurred at 0x1", ""},
    };
    for (const auto& row : rows)
    {
        StructuredException exception = MakeQuietly(row.signal, row.code, row.address);
        EXPECT_EQ(row.code, exception.GetExceptionCode());
        EXPECT_STREQ(row.name, StructuredException::GetExceptionName(row.code));
        EXPECT_STREQ(row.message, exception.GetErrorMessage());
    }
}

TEST(StructuredException, IsHandledLikeAnyOtherError)
{
    StructuredException exception = MakeQuietly(SIGBUS, 2, 0);
    const CapturedLog log(5);
    std::unique_ptr<HalvikException> propagated;
    PrintedBy([&] { propagated.reset(ExceptionHandler::HandleStructuredException("F - ", exception, true)); });
    EXPECT_EQ(2, ExceptionHandler::m_lastErrorCode);
    EXPECT_STREQ("Bus error (00000002) occurred at (nil)", ExceptionHandler::m_lastErrorString);
    ASSERT_TRUE(propagated);
    EXPECT_STREQ("Bus error (00000002) occurred at (nil)", propagated->GetErrorString());
    EXPECT_TRUE(propagated->GetErrorCode() == 2 && propagated->GetHandled());
    ShutdownLogging();
    const std::string text = ReadFile(GetLogFilename());
    std::size_t at = 0;
    for (const char* const part :
         {"] - ----------------------\n", "DumpExceptionContext() - [Entering]\n",
          " - F - Structured exception Bus error (code 00000002) occurred at (nil)\n", "GenerateCallStack() - [Entering]\n",
          "GenerateCallStack() - [Exiting]\n", "reg[01] = 0xffffffffffffffff\n", "GenerateModuleAddresses() - [Entering]\n",
          "GenerateModuleAddresses() - [Exiting]\n", "DumpExceptionContext() - [Exiting]\n"})
    {
        at = text.find(part, at);
        ASSERT_NE(at, std::string::npos) << part << text;
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
    const std::string whole = list();
    const std::string prefix = whole.substr(0, whole.find('\n'));
    std::string path = std::string(308 - prefix.size(), 'x') + "\u00E9"; // a character that does not fit
    char* const name = std::exchange(first->l_name, path.data());
    EXPECT_TRUE(list().starts_with(prefix + path.substr(0, path.size() - 2) + "\n"));
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
    EXPECT_EQ(damaged, list());
    _r_debug.r_map = first;
}

TEST(StructuredException, DumpsMemoryThatMayBeUnreadable)
{
    const std::string unreadable = "?? ?? ?? ?? ?? ?? ?? ?? ";
    const auto expectDump = [&](std::uintptr_t start, const std::string& hex, const char* text)
    {
        std::vector<std::string> expected = {"ERROR|  Raw stack dump:"};
        for (std::uintptr_t i = 0; i < 20; ++i)
        {
            char line[200];
            std::snprintf(line, sizeof line, "ERROR|    %p  %s%s  %s........", reinterpret_cast<void*>(start + 16 * i),
                          (i == 0 ? hex : unreadable).c_str(), unreadable.c_str(), i == 0 ? text : "........");
            expected.push_back(line);
        }
        expected.push_back("ERROR|");
        StructuredException exception = MakeQuietly(SIGSEGV, 1, 0);
        const CapturedLog log(ZR_LOG_ERROR);
        EXPECT_EQ("", PrintedBy([&] { exception.GenerateStackDump(reinterpret_cast<unsigned char*>(start)); }));
        EXPECT_EQ(expected, log.GetLines());
    };
    constexpr std::size_t kSize = 4096;
    const int file = memfd_create("page", 0);
    ASSERT_EQ(0, ftruncate(file, kSize));
    auto* const page = static_cast<char*>(mmap(nullptr, 2 * kSize, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
    close(file);
    std::memcpy(page + kSize - 8, "ABC\0\x1F\x20\x7F\x80", 8); // behind it is no more of the file
    expectDump(reinterpret_cast<std::uintptr_t>(page) + kSize - 8, "41 42 43 00 1f 20 7f 80 ", "ABC.. \x7F.");
    expectDump(0, unreadable, "........");
    expectDump(UINTPTR_MAX - 100, unreadable, "........");
}
