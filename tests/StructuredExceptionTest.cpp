#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/ExceptionHandler.h"
#include "ErrorHandlerDll/HalvikException.h"
#include "ErrorHandlerDll/LinuxStructuredException.h"
#include "support/LogTest.h"
#include "support/Pages.h"

#include <algorithm>
#include <cinttypes>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <link.h>
#include <memory>
#include <string>
#include <vector>

namespace
{

using Lines = std::vector<std::string>;

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

Lines GetPrintedLines()
{
    std::istringstream text(testing::internal::GetCapturedStdout());
    Lines lines;
    for (std::string line; std::getline(text, line);)
    {
        lines.push_back(line);
    }
    return lines;
}

// The lines between the one that reads `first` and the one that reads `last`.
Lines Between(const Lines& lines, const std::string& first, const std::string& last)
{
    const auto begin = std::find(lines.begin(), lines.end(), first);
    return begin == lines.end() ? Lines{} : Lines(begin + 1, std::find(begin, lines.end(), last));
}

Lines WithPrefix(const std::string& prefix, Lines lines)
{
    for (std::string& line : lines)
    {
        line.insert(0, prefix);
    }
    return lines;
}

Lines Join(std::initializer_list<Lines> parts)
{
    Lines joined;
    for (const Lines& part : parts)
    {
        joined.insert(joined.end(), part.begin(), part.end());
    }
    return joined;
}

std::string Trace(const char* function, const char* what)
{
    return std::string("Level 5|ErrorHandlerDll/LinuxStructuredException.cpp(N) : ") + function + "() - [" + what + "]";
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
    Lines registers;
    for (long long i = 0; i < 23; ++i)
    {
        char line[100];
        std::snprintf(line, sizeof line, "reg[%02lld] = 0x%llx", i, static_cast<unsigned long long>(i % 2 == 0 ? i : -i));
        registers.push_back(line);
    }
    const std::string constructor = "StructuredException::StructuredException";
    const std::string headline = "Structured exception Segmentation fault (code 00000002) occurred at 0x1234";
    for (const bool logs : {true, false})
    {
        const CapturedLog log(5, ZR_LOG_ALL_CATEGORIES, logs);
        testing::internal::CaptureStdout();
        MakeException(SIGSEGV, 2, 0x1234);
        const Lines printed = GetPrintedLines();

        const Lines frames = Between(printed, "Call stack", "Finished GenerateCallStack");
        const Lines modules = Between(printed, "GenerateModuleAddresses...", "Done");
        ASSERT_FALSE(frames.empty());
        ASSERT_FALSE(modules.empty());
        EXPECT_TRUE(modules[0].starts_with("    (") && modules[0].ends_with(") ")) << modules[0];
        EXPECT_EQ(Join({{constructor, headline, "  Fault address:  0x1234", "GenerateCallStack...", "Call stack"},
                        frames,
                        {"Finished GenerateCallStack", "Registers..."},
                        registers,
                        {"GenerateModuleAddresses..."},
                        modules,
                        {"Done", "Finished GenerateModuleAddresses"}}),
                  printed);
        const Lines logged =
            Join({{Trace("DumpExceptionContext", "Entering"), "ERROR|" + constructor + headline,
                   "ERROR|  Fault address:  0x1234", Trace("GenerateCallStack", "Entering"), "ERROR|  Call stack:"},
                  WithPrefix("ERROR|     ", frames),
                  {Trace("GenerateCallStack", "Exiting"), "ERROR|", "ERROR|  Registers:"},
                  WithPrefix("ERROR|", registers),
                  {"ERROR|", Trace("GenerateModuleAddresses", "Entering"), "ERROR|", "ERROR|  Modules list:"},
                  WithPrefix("ERROR|", modules),
                  {"ERROR|", Trace("GenerateModuleAddresses", "Exiting"), Trace("DumpExceptionContext", "Exiting")}});
        EXPECT_EQ(logs ? logged : Lines{}, log.GetLines());
    }
}

TEST(StructuredException, IsHandledLikeAnyOtherError)
{
    StructuredException exception = MakeQuietly(SIGBUS, 2, 0);
    const CapturedLog log(ZR_LOG_ERROR);
    testing::internal::CaptureStdout();
    const std::unique_ptr<HalvikException> propagated(ExceptionHandler::HandleStructuredException("F - ", exception, true));
    EXPECT_EQ("F - ", GetPrintedLines()[0]);
    EXPECT_EQ(2, ExceptionHandler::m_lastErrorCode);
    EXPECT_STREQ("Bus error (00000002) occurred at (nil)", ExceptionHandler::m_lastErrorString);
    ASSERT_TRUE(propagated);
    EXPECT_STREQ("Bus error (00000002) occurred at (nil)", propagated->GetErrorString());
    EXPECT_EQ(2, propagated->GetErrorCode());
    EXPECT_TRUE(propagated->GetHandled());
    const Lines lines = log.GetLines();
    EXPECT_EQ(
        (Lines{"ERROR|----------------------", "ERROR|F - Structured exception Bus error (code 00000002) occurred at (nil)",
               "ERROR|  Fault address:  (nil)"}),
        Lines(lines.begin(), lines.begin() + 3));
}

TEST(StructuredException, KeepsModuleLinesWithinTheirLimit)
{
    StructuredException exception = MakeQuietly(SIGSEGV, 1, 0);
    link_map* const executable = _r_debug.r_map;
    char* const name = executable->l_name;
    char prefix[50];
    const auto room = static_cast<std::size_t>(309 - std::snprintf(prefix, sizeof prefix, "    (%lx) ", executable->l_addr));
    const std::string paths[] = {std::string(room, 'x'), std::string(4000, 'x'), std::string(room - 1, 'x') + "\u00E9"};
    const std::size_t shown[] = {room, room, room - 1};
    for (int i = 0; i < 3; ++i)
    {
        std::string path = paths[i];
        executable->l_name = path.data();
        testing::internal::CaptureStdout();
        exception.GenerateModuleAddresses();
        executable->l_name = name;
        EXPECT_EQ(prefix + paths[i].substr(0, shown[i]), GetPrintedLines()[0]);
    }
}

TEST(StructuredException, DumpsMemoryThatMayBeUnreadable)
{
    const Pages pages(Pages::NO_ACCESS);
    std::memcpy(pages.Border() - 8, "ABC\0\x1F\x20\x7F\x80", 8);
    const std::string unreadable = "?? ?? ?? ?? ?? ?? ?? ?? ";
    const struct
    {
        std::uintptr_t address;
        std::string hex; // of the first eight bytes; the rest is unreadable
        std::string characters;
    } rows[] = {
        {reinterpret_cast<std::uintptr_t>(pages.Border()) - 8, "41 42 43 00 1f 20 7f 80 ", "ABC.. \x7F."},
        {0, unreadable, "........"},
        {UINTPTR_MAX - 100, unreadable, "........"},
    };
    StructuredException exception = MakeQuietly(SIGSEGV, 1, 0);
    for (const auto& row : rows)
    {
        Lines expected = {"ERROR|  Raw stack dump:"};
        for (std::uintptr_t i = 0; i < 20; ++i)
        {
            char address[50];
            std::snprintf(address, sizeof address, "ERROR|    %p  ", reinterpret_cast<void*>(row.address + 16 * i));
            expected.push_back(address + (i == 0 ? row.hex : unreadable) + unreadable + "  " +
                               (i == 0 ? row.characters : "........") + "........");
        }
        expected.push_back("ERROR|");
        const CapturedLog log(ZR_LOG_ERROR);
        testing::internal::CaptureStdout();
        exception.GenerateStackDump(reinterpret_cast<unsigned char*>(row.address));
        EXPECT_EQ("", testing::internal::GetCapturedStdout());
        EXPECT_EQ(expected, log.GetLines());
    }
}

namespace
{

void DumpAndExit(int signal, siginfo_t* info, void* context)
{
    const StructuredException exception(signal, static_cast<ucontext_t*>(context), info);
    ShutdownLogging();
    _exit(0);
}

// In assembler, so that neither the compiler nor a sanitizer sees the fault coming.
void WriteByte(std::uintptr_t address)
{
    asm volatile("movb $1, (%0)" : : "r"(address) : "memory");
}

void CallAddress(std::uintptr_t address)
{
    reinterpret_cast<void (*)()>(address)();
    asm volatile(""); // keeps the call from becoming a jump
}

void FaultOnAlternateStack(void (*fault)(std::uintptr_t), std::uintptr_t address)
{
    static char stack[256 * 1024];
    stack_t alternate{};
    alternate.ss_sp = stack;
    alternate.ss_size = sizeof stack;
    sigaltstack(&alternate, nullptr);
    struct sigaction action = {};
    action.sa_sigaction = DumpAndExit;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    for (const int signal : {SIGSEGV, SIGBUS})
    {
        sigaction(signal, &action, nullptr);
    }
    fault(address);
}

// The addresses in the frames of the dump, from that of the interrupted instruction on.
std::vector<std::uintptr_t> InterruptedFrames(const Lines& dump)
{
    std::uintptr_t instruction = UINTPTR_MAX;
    std::vector<std::uintptr_t> frames;
    for (const std::string& line : dump)
    {
        std::sscanf(line.c_str(), "ERROR|reg[16] = 0x%" SCNxPTR, &instruction);
        if (line.starts_with("ERROR|     ") && line.ends_with("]"))
        {
            frames.push_back(std::strtoull(line.c_str() + line.rfind('[') + 1, nullptr, 16));
        }
    }
    frames.erase(frames.begin(), std::find(frames.begin(), frames.end(), instruction));
    return frames;
}

} // namespace

TEST(StructuredException, RealFaultsAreDumpedAsTheyWere)
{
    const Pages noAccess(Pages::NO_ACCESS);
    const Pages pastEnd(Pages::PAST_END_OF_FILE);
    static const int data = 0;
    const struct
    {
        void (*fault)(std::uintptr_t);
        std::uintptr_t address;
        const char* text;
    } rows[] = {
        {WriteByte, reinterpret_cast<std::uintptr_t>(noAccess.Border()), "Segmentation fault (code 00000002)"},
        {WriteByte, 16, "Segmentation fault (code 00000001)"},
        {WriteByte, reinterpret_cast<std::uintptr_t>(pastEnd.Border()), "Bus error (code 00000002)"},
        {CallAddress, 0x1234, "Segmentation fault (code 00000001)"},
        {CallAddress, reinterpret_cast<std::uintptr_t>(&data), "Segmentation fault (code 00000002)"},
    };
    std::vector<std::uintptr_t> callers; // of the function that faults: the same in each row
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.text);
        const CapturedLog log(ZR_LOG_ERROR);
        EXPECT_EXIT(FaultOnAlternateStack(row.fault, row.address), testing::ExitedWithCode(0), "");
        const Lines lines = log.GetLines();
        std::vector<std::uintptr_t> frames = InterruptedFrames(lines);
        ASSERT_LT(3u, frames.size());

        char text[200];
        std::snprintf(text, sizeof text, "Structured exception %s occurred at 0x%" PRIxPTR, row.text, row.address);
        EXPECT_EQ(std::string("ERROR|StructuredException::StructuredException") + text, lines[0]);
        if (row.fault == CallAddress)
        {
            EXPECT_EQ(row.address, frames[0]);
            frames.erase(frames.begin());
        }
        EXPECT_LT(frames[0] - reinterpret_cast<std::uintptr_t>(row.fault), 200u);
        frames.erase(frames.begin());
        callers = callers.empty() ? frames : callers;
        EXPECT_EQ(callers, frames);
    }
}
