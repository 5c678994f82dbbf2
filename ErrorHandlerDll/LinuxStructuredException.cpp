// Fatal signals as objects, and the dump of their context.
#include "ErrorHandlerDll/LinuxStructuredException.h"

#include "ErrorHandlerDll/ErrnoKeeper.h"
#include "ErrorHandlerDll/FunctionTrace.h"
#include "ErrorHandlerDll/MemoryProbe.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <execinfo.h>
#include <iterator>
#include <link.h>
#include <memory>

namespace
{

constexpr std::size_t kDumpLineSize = 512;
constexpr std::size_t kModuleLineSize = 310; // what readers of dumps are used to; longer paths are cut

constexpr const char* kCallStackIndent = "     ";

constexpr std::uintptr_t kMemoryDumpLines = 20;
constexpr std::size_t kMemoryDumpBytes = 16; // a line
constexpr std::size_t kHexWidth = 3;         // two digits and a blank

using FrameTexts = std::unique_ptr<char*, decltype(&std::free)>;

// One for the process, overwritten by each call of GetErrorMessage.
ErrorText gErrorMessage;

// The names of SIGSEGV's si_code values.
constexpr const char* kExceptionNames[] = {"", "SEGV_MAPERR", "SEGV_ACCERR"};

void LogLine(const char* text, const char* source = "")
{
    LogMessage(ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, source, text);
}

void Print(const char* line)
{
    std::puts(line);
}

void PrintAndLog(const char* line, const char* source = "")
{
    Print(line);
    LogLine(line, source);
}

void DumpRegisters(const ucontext_t& context)
{
    LogLine("");
    LogLine("  Registers:");
    Print("Registers...");
    for (int i = 0; i < NGREG; ++i)
    {
        char line[kDumpLineSize];
        FormatFixedText(line, sizeof line, "reg[%02d] = 0x%llx", i,
                        static_cast<unsigned long long>(context.uc_mcontext.gregs[i]));
        PrintAndLog(line);
    }
}

// One line of memory: address, hex column, character column.
void LogMemoryLine(std::uintptr_t address)
{
    char hex[kMemoryDumpBytes * kHexWidth + 1];
    char characters[kMemoryDumpBytes + 1] = "";
    for (std::size_t i = 0; i < kMemoryDumpBytes; ++i)
    {
        bool isReadable = false;
        const unsigned char byte = GetMemoryContents(reinterpret_cast<unsigned char*>(address + i), isReadable);
        char* const hexByte = hex + i * kHexWidth;
        if (isReadable)
        {
            FormatFixedText(hexByte, kHexWidth + 1, "%02x ", byte);
        }
        else
        {
            std::memcpy(hexByte, "?? ", kHexWidth + 1);
        }
        characters[i] = isReadable && byte >= 0x20 && byte <= 0x7F ? static_cast<char>(byte) : '.';
    }
    char line[kDumpLineSize];
    FormatFixedText(line, sizeof line, "    %p  %s  %s", reinterpret_cast<void*>(address), hex, characters);
    LogLine(line);
}

} // namespace

StructuredException::StructuredException(int signal, ucontext_t* context, siginfo_t* info)
    : m_context(*context), m_signalInfo(*info), m_signal(signal), m_stackFrameCount(backtrace(m_stackFrames, kMaxFrames))
{
    DumpExceptionContext("StructuredException::StructuredException");
}

const char* StructuredException::GetExceptionString()
{
    switch (m_signal)
    {
    case SIGILL:
        return "Illegal Instruction";
    case SIGBUS:
        return "Bus error";
    case SIGFPE:
        return "Floating Point Exception";
    case SIGSEGV:
        return "Segmentation fault";
    default:
        return "Unknown";
    }
}

ZelvoReaderErrorCode StructuredException::GetExceptionCode()
{
    return static_cast<ZelvoReaderErrorCode>(m_signalInfo.si_code);
}

char* StructuredException::GetErrorMessage()
{
    FormatFixedText(gErrorMessage, sizeof gErrorMessage, "%s (%08x) occurred at %p", GetExceptionString(),
                    static_cast<unsigned int>(m_signalInfo.si_code), m_signalInfo.si_addr);
    return gErrorMessage;
}

const char* StructuredException::GetExceptionName(int code)
{
    return static_cast<unsigned int>(code) < std::size(kExceptionNames) ? kExceptionNames[code] : "";
}

void StructuredException::RegisterHandler(SignalHandlers*) {}

void StructuredException::UnRegisterHandler(SignalHandlers*) {}

void StructuredException::DumpExceptionContext(const char* functionName)
{
    const ErrnoKeeper keeper;
    try
    {
        TRACE_ENTRY();
        char line[kDumpLineSize];
        FormatFixedText(line, sizeof line, "Structured exception %s (code %08X) occurred at %p", GetExceptionString(),
                        static_cast<unsigned int>(m_signalInfo.si_code), m_signalInfo.si_addr);
        std::printf("%s\n%s\n", functionName == nullptr ? "" : functionName, line);
        LogLine(line, functionName);

        FormatFixedText(line, sizeof line, "  Fault address:  %p", m_signalInfo.si_addr);
        PrintAndLog(line);

        Print("GenerateCallStack...");
        GenerateCallStack();
        Print("Finished GenerateCallStack");

        DumpRegisters(m_context);

        LogLine("");
        Print("GenerateModuleAddresses...");
        GenerateModuleAddresses();
        Print("Finished GenerateModuleAddresses");
        TRACE_EXIT();
    }
    catch (...)
    {
        RecordHandlerFailure();
        throw;
    }
}

void StructuredException::GenerateCallStack()
{
    const ErrnoKeeper keeper;
    try
    {
        TRACE_ENTRY();
        LogLine("  Call stack:");
        Print("Call stack");
        const FrameTexts texts(backtrace_symbols(m_stackFrames, static_cast<int>(m_stackFrameCount)), std::free);
        for (std::int64_t i = 0; texts && i < m_stackFrameCount; ++i)
        {
            PrintAndLog(texts.get()[i], kCallStackIndent);
        }
        TRACE_EXIT();
    }
    catch (...)
    {
        RecordHandlerFailure();
        throw;
    }
}

void StructuredException::GenerateModuleAddresses()
{
    const ErrnoKeeper keeper;
    try
    {
        TRACE_ENTRY();
        LogLine("");
        LogLine("  Modules list:");
        for (const link_map* module = _r_debug.r_map; module != nullptr; module = module->l_next)
        {
            char line[kModuleLineSize];
            FormatFixedText(line, sizeof line, "    (%lx) %s", module->l_addr, module->l_name);
            PrintAndLog(line);
        }
        LogLine("");
        Print("Done");
        TRACE_EXIT();
    }
    catch (...)
    {
        RecordHandlerFailure();
        throw;
    }
}

void StructuredException::GenerateStackDump(unsigned char* address)
{
    const ErrnoKeeper keeper;
    try
    {
        TRACE_ENTRY();
        LogLine("  Raw stack dump:");
        for (std::uintptr_t i = 0; i < kMemoryDumpLines; ++i)
        {
            // As a number: near the end of the address space it starts again at 0, which a pointer may not.
            LogMemoryLine(reinterpret_cast<std::uintptr_t>(address) + i * kMemoryDumpBytes);
        }
        LogLine("");
        TRACE_EXIT();
    }
    catch (...)
    {
        RecordHandlerFailure();
        throw;
    }
}
