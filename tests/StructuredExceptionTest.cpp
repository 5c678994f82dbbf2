#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/ExceptionHandler.h"
#include "ErrorHandlerDll/HalvikException.h"
#include "ErrorHandlerDll/LinuxStructuredException.h"
#include "support/CapturedLog.h"

#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <link.h>
#include <memory>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace
{

using Lines = std::vector<std::string>;

constexpr std::size_t kPageSize = 4096;

StructuredException MakeException(int signal, int code, void* address)
{
    static ucontext_t context;
    for (int i = 0; i < NGREG; ++i)
    {
        context.uc_mcontext.gregs[i] = i % 2 == 0 ? i : -i;
    }
    siginfo_t info{};
    info.si_signo = signal;
    info.si_code = code;
    info.si_addr = address;
    return StructuredException(signal, &context, &info);
}

// The exception without the dump that its construction prints.
StructuredException MakeQuietly(int signal, int code, void* address)
{
    testing::internal::CaptureStdout();
    const StructuredException exception = MakeException(signal, code, address);
    testing::internal::GetCapturedStdout();
    return exception;
}

Lines Split(const std::string& text)
{
    Lines lines;
    for (std::size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
    {
        lines.push_back(text.substr(start, end - start));
    }
    return lines;
}

// The lines between the one that reads `first` and the one that reads `last`.
Lines Between(const Lines& lines, const std::string& first, const std::string& last)
{
    const auto begin = std::find(lines.begin(), lines.end(), first);
    const auto end = std::find(begin, lines.end(), last);
    return begin == lines.end() ? Lines{} : Lines(begin + 1, end);
}

Lines RegisterLines()
{
    Lines lines;
    for (long long i = 0; i < 23; ++i)
    {
        char line[100];
        std::snprintf(line, sizeof line, "reg[%02lld] = 0x%llx", i, static_cast<unsigned long long>(i % 2 == 0 ? i : -i));
        lines.push_back(line);
    }
    return lines;
}

Lines Join(std::initializer_list<Lines> parts, const std::string& prefix = "")
{
    Lines joined;
    for (const Lines& part : parts)
    {
        for (const std::string& line : part)
        {
            joined.push_back(prefix + line);
        }
    }
    return joined;
}

Lines Indented(Lines lines)
{
    return Join({lines}, "     ");
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
    StructuredException first = MakeQuietly(SIGUSR1, 0, nullptr);
    const char* const shared = first.GetErrorMessage();
    for (const auto& row : rows)
    {
        StructuredException exception = MakeQuietly(row.signal, row.code, reinterpret_cast<void*>(row.address));
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
    StructuredException::RegisterHandler(nullptr);
    StructuredException::UnRegisterHandler(nullptr);
}

TEST(StructuredException, DumpsToStandardOutputAndLog)
{
    const std::string headline = "Structured exception Segmentation fault (code 00000002) occurred at 0x1234";
    for (const bool logs : {true, false})
    {
        const CapturedLog log(ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, logs);
        testing::internal::CaptureStdout();
        MakeException(SIGSEGV, 2, reinterpret_cast<void*>(0x1234));
        const Lines printed = Split(testing::internal::GetCapturedStdout());

        const Lines frames = Between(printed, "Call stack", "Finished GenerateCallStack");
        const Lines modules = Between(printed, "GenerateModuleAddresses...", "Done");
        ASSERT_FALSE(frames.empty());
        ASSERT_FALSE(modules.empty());
        EXPECT_TRUE(modules[0].starts_with("    (") && modules[0].ends_with(") ")) << modules[0];
        EXPECT_EQ(Join({{"StructuredException::StructuredException", headline, "  Fault address:  0x1234",
                         "GenerateCallStack...", "Call stack"},
                        frames,
                        {"Finished GenerateCallStack", "Registers..."},
                        RegisterLines(),
                        {"GenerateModuleAddresses..."},
                        modules,
                        {"Done", "Finished GenerateModuleAddresses"}}),
                  printed);
        const Lines logged =
            Join({{"StructuredException::StructuredException" + headline, "  Fault address:  0x1234", "  Call stack:"},
                  Indented(frames),
                  {"", "  Registers:"},
                  RegisterLines(),
                  {"", "", "  Modules list:"},
                  modules,
                  {""}},
                 "ERROR|");
        EXPECT_EQ(logs ? logged : Lines{}, log.GetLines());
    }
}

TEST(StructuredException, IsHandledLikeAnyOtherError)
{
    StructuredException exception = MakeQuietly(SIGBUS, 2, nullptr);
    const CapturedLog log(5);
    testing::internal::CaptureStdout();
    const std::unique_ptr<HalvikException> propagated(ExceptionHandler::HandleStructuredException("F - ", exception, true));
    EXPECT_FALSE(testing::internal::GetCapturedStdout().empty());
    EXPECT_EQ(2, ExceptionHandler::m_lastErrorCode);
    EXPECT_STREQ("Bus error (00000002) occurred at (nil)", ExceptionHandler::m_lastErrorString);
    ASSERT_TRUE(propagated);
    EXPECT_STREQ("Bus error (00000002) occurred at (nil)", propagated->GetErrorString());
    EXPECT_EQ(2, propagated->GetErrorCode());
    EXPECT_TRUE(propagated->GetHandled());

    const Lines lines = log.GetLines();
    const auto trace = [](const std::string& file, const std::string& function, const std::string& what)
    {
        return "Level 5|ErrorHandlerDll/" + file + ".cpp(N) : " + function + "() - [" + what + "]";
    };
    const std::string dump = "LinuxStructuredException";
    Lines frame; // what is left without the lines of the lists
    for (const std::string& line : lines)
    {
        if (line.starts_with("Level 5|") || line == "ERROR|----------------------" || line.starts_with("ERROR|F - "))
        {
            frame.push_back(line);
        }
    }
    EXPECT_EQ((Lines{trace("ExceptionHandler", "HandleStructuredException", "Entering"), "ERROR|----------------------",
                     trace(dump, "DumpExceptionContext", "Entering"),
                     "ERROR|F - Structured exception Bus error (code 00000002) occurred at (nil)",
                     trace(dump, "GenerateCallStack", "Entering"), trace(dump, "GenerateCallStack", "Exiting"),
                     trace(dump, "GenerateModuleAddresses", "Entering"), trace(dump, "GenerateModuleAddresses", "Exiting"),
                     trace(dump, "DumpExceptionContext", "Exiting"),
                     trace("ExceptionHandler", "HandleStructuredException", "Exiting")}),
              frame);
}

TEST(StructuredException, KeepsModuleLinesWithinTheirLimit)
{
    StructuredException exception = MakeQuietly(SIGSEGV, 1, nullptr);
    link_map* const executable = _r_debug.r_map;
    char* const name = executable->l_name;
    char prefix[50];
    const std::size_t room =
        309 - static_cast<std::size_t>(std::snprintf(prefix, sizeof prefix, "    (%lx) ", executable->l_addr));
    const struct
    {
        std::string path;
        std::size_t shown;
    } rows[] = {
        {std::string(room, 'x'), room},
        {std::string(room + 1, 'x'), room},
        {std::string(4000, 'x'), room},
        {std::string(room - 1, 'x') + "\u00E9", room - 1},
    };
    for (const auto& row : rows)
    {
        std::string path = row.path;
        executable->l_name = path.data();
        testing::internal::CaptureStdout();
        exception.GenerateModuleAddresses();
        executable->l_name = name;
        EXPECT_EQ(prefix + row.path.substr(0, row.shown), Split(testing::internal::GetCapturedStdout())[0]);
    }
}

namespace
{

// A readable page with a page behind it that cannot be read.
class PagePair
{
public:
    enum Second
    {
        NO_ACCESS,
        UNMAPPED,
        PAST_END_OF_FILE
    };

    explicit PagePair(Second second)
    {
        char name[] = "/tmp/ErrorHandlerDll.XXXXXX";
        const int file = mkstemp(name);
        unlink(name);
        EXPECT_EQ(0, ftruncate(file, kPageSize));
        m_start = static_cast<unsigned char*>(mmap(nullptr, 2 * kPageSize, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
        close(file);
        if (second == NO_ACCESS)
        {
            mprotect(m_start + kPageSize, kPageSize, PROT_NONE);
        }
        else if (second == UNMAPPED)
        {
            munmap(m_start + kPageSize, kPageSize);
        }
    }
    PagePair(const PagePair&) = delete;
    PagePair& operator=(const PagePair&) = delete;
    ~PagePair() { munmap(m_start, 2 * kPageSize); }

    unsigned char* GetBoundary() const { return m_start + kPageSize; }

private:
    unsigned char* m_start;
};

std::string MemoryLine(std::uintptr_t address, const std::string& hex, const std::string& characters)
{
    char start[50];
    std::snprintf(start, sizeof start, "ERROR|    %p  ", reinterpret_cast<void*>(address));
    return start + hex + "  " + characters;
}

std::string Repeat(const std::string& text, int count)
{
    std::string repeated;
    for (int i = 0; i < count; ++i)
    {
        repeated += text;
    }
    return repeated;
}

Lines DumpMemory(std::uintptr_t address)
{
    static StructuredException exception = MakeQuietly(SIGSEGV, 1, nullptr);
    const CapturedLog log(ZR_LOG_ERROR);
    testing::internal::CaptureStdout();
    exception.GenerateStackDump(reinterpret_cast<unsigned char*>(address));
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    return log.GetLines();
}

} // namespace

TEST(StructuredException, MemoryDumpEndsWhereMemoryDoes)
{
    for (const auto second : {PagePair::NO_ACCESS, PagePair::UNMAPPED, PagePair::PAST_END_OF_FILE})
    {
        const PagePair pages(second);
        unsigned char* const start = pages.GetBoundary() - 8;
        std::memcpy(start, "ABC\0\x1F\x20\x7F\x80", 8);
        const auto address = reinterpret_cast<std::uintptr_t>(start);

        Lines expected = {"ERROR|  Raw stack dump:", MemoryLine(address, "41 42 43 00 1f 20 7f 80 " + Repeat("?? ", 8),
                                                                "ABC.. \x7F." + std::string(8, '.'))};
        for (std::uintptr_t i = 1; i < 20; ++i)
        {
            expected.push_back(MemoryLine(address + 16 * i, Repeat("?? ", 16), std::string(16, '.')));
        }
        expected.push_back("ERROR|");
        EXPECT_EQ(expected, DumpMemory(address));
    }
}

TEST(StructuredException, MemoryDumpTakesAnyAddress)
{
    for (const std::uintptr_t address : {std::uintptr_t{0}, UINTPTR_MAX - 100, UINTPTR_MAX, UINTPTR_MAX / 2})
    {
        const Lines lines = DumpMemory(address);
        ASSERT_EQ(22u, lines.size());
        for (std::uintptr_t i = 0; i < 20; ++i)
        {
            EXPECT_EQ(MemoryLine(address + 16 * i, Repeat("?? ", 16), std::string(16, '.')), lines[i + 1]);
        }
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
void ReadByte(std::uintptr_t address)
{
    asm volatile("movb (%0), %%al" : : "r"(address) : "rax", "memory");
}

void WriteByte(std::uintptr_t address)
{
    asm volatile("movb $1, (%0)" : : "r"(address) : "memory");
}

void DivideByZero(std::uintptr_t)
{
    asm volatile("xorl %%edx, %%edx; movl $1, %%eax; xorl %%ecx, %%ecx; divl %%ecx" : : : "rax", "rcx", "rdx");
}

void RunIllegalInstruction(std::uintptr_t)
{
    asm volatile("ud2");
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
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL})
    {
        sigaction(signal, &action, nullptr);
    }
    fault(address);
}

} // namespace

TEST(StructuredException, RealFaultsAreDumpedAsTheyWere)
{
    const PagePair noAccess(PagePair::NO_ACCESS);
    const PagePair pastEnd(PagePair::PAST_END_OF_FILE);
    const struct
    {
        void (*fault)(std::uintptr_t);
        std::uintptr_t address; // 0: that of the instruction
        const char* signal;
        const char* code;
    } rows[] = {
        {ReadByte, reinterpret_cast<std::uintptr_t>(noAccess.GetBoundary()), "Segmentation fault", "00000002"},
        {WriteByte, 16, "Segmentation fault", "00000001"},
        {ReadByte, reinterpret_cast<std::uintptr_t>(pastEnd.GetBoundary()), "Bus error", "00000002"},
        {DivideByZero, 0, "Floating Point Exception", "00000001"},
        {RunIllegalInstruction, 0, "Illegal Instruction", "00000002"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.signal);
        const CapturedLog log(ZR_LOG_ERROR);
        EXPECT_EXIT(FaultOnAlternateStack(row.fault, row.address), testing::ExitedWithCode(0), "");
        const Lines lines = log.GetLines();

        // The interrupted instruction lies in the function that faulted, and is one of the frames.
        std::uintptr_t instruction = 0;
        for (const std::string& line : lines)
        {
            std::sscanf(line.c_str(), "ERROR|reg[16] = 0x%" SCNxPTR, &instruction);
        }
        EXPECT_LT(instruction - reinterpret_cast<std::uintptr_t>(row.fault), 200u);
        char text[200];
        std::snprintf(text, sizeof text, "[0x%" PRIxPTR "]", instruction);
        const auto isFrame = [&](const std::string& line)
        {
            return line.starts_with("ERROR|     ") && line.ends_with(text);
        };
        EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), isFrame));

        ASSERT_LT(2u, lines.size());
        const std::uintptr_t address = row.address == 0 ? instruction : row.address;
        std::snprintf(text, sizeof text, "Structured exception %s (code %s) occurred at 0x%" PRIxPTR, row.signal, row.code,
                      address);
        EXPECT_EQ(std::string("ERROR|StructuredException::StructuredException") + text, lines[0]);
    }
}
