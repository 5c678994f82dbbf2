// Fatal signals as objects, and the dump of their context. The dump runs in a signal handler, in a thread that was
// interrupted anywhere: nothing below may allocate, wait without a time limit, or read memory that it has not checked. See
// crash/Dump.h.
#include "ErrorHandlerDll/LinuxStructuredException.h"

#include "ErrorHandlerDll/FunctionTrace.h"
#include "ErrorHandlerDll/crash/Dump.h"
#include "ErrorHandlerDll/unwind/FrameText.h"
#include "ErrorHandlerDll/unwind/LoadedObjects.h"
#include "ErrorHandlerDll/unwind/MemoryReader.h"
#include "ErrorHandlerDll/unwind/StackWalk.h"
#include "QV/FixedText.h"

#include <cstring>
#include <string_view>

using Crash::Dump;

namespace
{

constexpr std::size_t kDumpLineSize = 512;
constexpr std::size_t kModuleLineSize = 310; // what readers of dumps are used to; longer paths are cut

constexpr std::size_t kFrameLineSize = 4096; // a path and a symbol; a dump's stack has room for no more, longer ones are cut

constexpr const char* kCallStackIndent = "     ";

constexpr std::uintptr_t kMemoryDumpLines = 20;
constexpr std::size_t kMemoryDumpBytes = 16; // a line
constexpr std::size_t kHexWidth = 3;         // two digits and a blank

// One for the process, overwritten by each call of GetErrorMessage.
ErrorText gErrorMessage;

void Print(const char* line)
{
    Dump::Current()->Print(line);
}

void LogLine(const char* line, const char* source = "")
{
    Dump::Current()->Log(ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, source, line);
}

void PrintAndLog(const char* line, const char* source = "")
{
    Print(line);
    LogLine(line, source);
}

void RunPart(const auto& part)
{
    if (!Crash::RunPart(part))
    {
        PrintAndLog(Crash::kFaultInDump);
    }
}

void RunTracedDump(const auto& body, const TracePoint& exit, const TracePoint& entry = Here())
{
    Dump::Run([&] { RunTraced(body, exit, entry); });
}

// For a dump that cannot be made: handlers that fault again and again, or no stack left for it.
void PrintWithoutDump(std::string_view line)
{
    Crash::StandardOutput output;
    output.PrintLine(line);
    output.PrintLine("  No dump: too many are under way in this process, or in this thread");
    output.WriteLines();
}

// Copies a record of which at least the first `leastSize` bytes must be readable; else the copy is zero.
void CopyReadable(void* copy, const void* record, std::size_t size, std::size_t leastSize)
{
    std::memset(copy, 0, size);
    if (!Unwind::ReadMemory(record, copy, size) && !Unwind::ReadMemory(record, copy, leastSize))
    {
        std::memset(copy, 0, size);
    }
}

void DumpRegisters(const ucontext_t& context)
{
    LogLine("");
    LogLine("  Registers:");
    Print("Registers...");
    for (int i = 0; i < NGREG; ++i)
    {
        char line[kDumpLineSize];
        FormatFixedText(line, sizeof line, "reg[%02d] = 0x%llx", i, context.uc_mcontext.gregs[i]);
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
        char byte = 0;
        const bool isReadable = Unwind::ReadMemory(reinterpret_cast<const void*>(address + i), &byte, 1);
        FormatFixedText(hex + i * kHexWidth, kHexWidth + 1, isReadable ? "%02x " : "?? ", static_cast<unsigned char>(byte));
        characters[i] = byte >= 0x20 ? byte : '.'; // 0x20 to 0x7F: a char from 0x80 on is negative
    }
    char line[kDumpLineSize];
    FormatFixedText(line, sizeof line, "    %p  %s  %s", reinterpret_cast<void*>(address), hex, characters);
    LogLine(line);
}

} // namespace

StructuredException::StructuredException(int signal, ucontext_t* context, siginfo_t* info)
    : m_signal(signal), m_stackFrameCount(0)
{
    // The kernel's record ends earlier than the C library's, so what lies behind it need not be readable.
    CopyReadable(&m_context, context, sizeof m_context, offsetof(ucontext_t, uc_sigmask) + sizeof(unsigned long));
    CopyReadable(&m_signalInfo, info, sizeof m_signalInfo, sizeof m_signalInfo);
    if (Crash::DumpStack::Current() != nullptr)
    {
        Dump::LeaveFaultyPart(signal, m_signalInfo.si_code);
        return; // a signal that somebody has sent: the dump under way goes on when the host's handler returns
    }
    Crash::CallStack callStack = {{}, m_stackFrames, kMaxFrames};
    Unwind::CaptureRegisters(callStack.start);
    const auto dump = [&]
    {
        m_stackFrameCount = callStack.count;
        DumpExceptionContext("StructuredException::StructuredException");
    };
    if (!Dump::Run(dump, Crash::FindSignalHandlers(&callStack), Dump::IsFault(signal, m_signalInfo.si_code)))
    {
        PrintWithoutDump(GetErrorMessage());
    }
    Crash::DumpStack::KeepAlternate(m_context, context);
}

const char* StructuredException::GetExceptionString()
{
    return m_signal == SIGILL    ? "Illegal Instruction"
           : m_signal == SIGBUS  ? "Bus error"
           : m_signal == SIGFPE  ? "Floating Point Exception"
           : m_signal == SIGSEGV ? "Segmentation fault"
                                 : "Unknown";
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
    return code == SEGV_MAPERR ? "SEGV_MAPERR" : code == SEGV_ACCERR ? "SEGV_ACCERR" : "";
}

void StructuredException::RegisterHandler(SignalHandlers*) {}

void StructuredException::UnRegisterHandler(SignalHandlers*) {}

void StructuredException::DumpExceptionContext(const char* functionName)
{
    RunTracedDump(
        [&]
        {
            char line[kDumpLineSize];
            FormatFixedText(line, sizeof line, "Structured exception %s (code %08X) occurred at %p", GetExceptionString(),
                            static_cast<unsigned int>(m_signalInfo.si_code), m_signalInfo.si_addr);
            Print(functionName == nullptr ? "" : functionName);
            PrintAndLog(line, functionName);

            FormatFixedText(line, sizeof line, "  Fault address:  %p", m_signalInfo.si_addr);
            PrintAndLog(line);
            Dump::Current()->WriteLines();

            Print("GenerateCallStack...");
            RunPart([this] { GenerateCallStack(); });
            Print("Finished GenerateCallStack");
            Dump::Current()->WriteLines();

            RunPart([this] { DumpRegisters(m_context); });
            Dump::Current()->WriteLines();

            LogLine("");
            Print("GenerateModuleAddresses...");
            RunPart([this] { GenerateModuleAddresses(); });
            Print("Finished GenerateModuleAddresses");
        },
        Here());
}

void StructuredException::GenerateCallStack()
{
    RunTracedDump(
        [&]
        {
            LogLine("  Call stack:");
            Print("Call stack");
            const std::size_t count = static_cast<std::size_t>(m_stackFrameCount);
            Unwind::FrameTexts texts({m_stackFrames, count});
            for (std::size_t i = 0; i < count; ++i)
            {
                char line[kFrameLineSize];
                texts.Format(i, line, sizeof line);
                PrintAndLog(line, kCallStackIndent);
            }
        },
        Here());
}

void StructuredException::GenerateModuleAddresses()
{
    RunTracedDump(
        [&]
        {
            LogLine("");
            LogLine("  Modules list:");
            Unwind::MemoryReader reader;
            Unwind::ModuleList modules(reader);
            for (Unwind::Module module = {}; modules.Next(module);)
            {
                char path[kModuleLineSize];
                char line[kModuleLineSize];
                reader.ReadString(module.name, path, sizeof path);
                FormatFixedText(line, sizeof line, "    (%lx) %s", module.loadAddress, path);
                PrintAndLog(line);
            }
            if (modules.IsDamaged())
            {
                PrintAndLog("    The list of modules is damaged");
            }
            LogLine("");
            Print("Done");
        },
        Here());
}

void StructuredException::GenerateStackDump(unsigned char* address)
{
    RunTracedDump(
        [&]
        {
            LogLine("  Raw stack dump:");
            for (std::uintptr_t i = 0; i < kMemoryDumpLines; ++i)
            {
                // Computed as a number: behind the last address it starts again at 0, which a pointer must not.
                LogMemoryLine(reinterpret_cast<std::uintptr_t>(address) + i * kMemoryDumpBytes);
            }
            LogLine("");
        },
        Here());
}
