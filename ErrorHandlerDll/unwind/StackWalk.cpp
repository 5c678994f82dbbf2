#include "ErrorHandlerDll/unwind/StackWalk.h"

#include "ErrorHandlerDll/unwind/CallFrameInfo.h"
#include "ErrorHandlerDll/unwind/FrameRegisters.h"
#include "ErrorHandlerDll/unwind/LoadedObjects.h"
#include "ErrorHandlerDll/unwind/MemoryReader.h"

#include <cstddef>
#include <cstring>
#include <ucontext.h>

namespace Unwind
{
namespace
{

// A frame pointer that claims a larger frame is taken for some other value.
constexpr std::uint64_t kMaxFrameSize = 1u << 20;

constexpr std::uint64_t kStaleSize = 4096; // below a stack, where calls that have returned may have left frames

constexpr int kMaxSteps = 100000; // takes some 80 ms

// Positions of the registers in a signal context, in the order of the unwind tables' numbers.
constexpr int kContextRegisters[FrameRegisters::kCount] = {REG_RAX, REG_RDX, REG_RCX, REG_RBX, REG_RSI, REG_RDI,
                                                           REG_RBP, REG_RSP, REG_R8,  REG_R9,  REG_R10, REG_R11,
                                                           REG_R12, REG_R13, REG_R14, REG_R15, REG_RIP};

// What a signal handler returns to: mov $SYS_rt_sigreturn, %rax; syscall.
constexpr unsigned char kSignalTrampoline[] = {0x48, 0xc7, 0xc0, 0x0f, 0x00, 0x00, 0x00, 0x0f, 0x05};

constexpr std::size_t kLongestCall = 7;

// Whether the bytes before a return address are those of a call: direct, or through a register or memory.
bool EndsWithCall(const unsigned char (&code)[kLongestCall]) noexcept
{
    constexpr unsigned char kDirect = 0xe8;
    constexpr unsigned char kIndirect = 0xff;
    if (code[kLongestCall - 5] == kDirect)
    {
        return true;
    }
    for (std::size_t length = 2; length <= kLongestCall; ++length)
    {
        const unsigned char* const call = code + kLongestCall - length;
        const unsigned mode = call[1] >> 6;
        const unsigned operand = call[1] & 7;
        const unsigned scaled = length > 2 ? call[2] & 7 : 0;
        if (call[0] != kIndirect || (call[1] >> 3 & 7) != 2)
        {
            continue;
        }
        const bool hasScale = mode != 3 && operand == 4;
        const bool isLongAddress = mode == 2 || (mode == 0 && (operand == 5 || (hasScale && scaled == 5)));
        if (length == 2u + (hasScale ? 1 : 0) + (isLongAddress ? 4 : mode == 1 ? 1 : 0))
        {
            return true;
        }
    }
    return false;
}

// The stretches of stack that a walk has come along, the current one last. Callers lie above; where code has switched stacks
// they lie elsewhere, but never in a stretch that was left: that is damage, and the walk would go round in circles.
class VisitedStack
{
public:
    explicit VisitedStack(std::uint64_t start) noexcept : m_stretches{{start, start}} {}

    bool IsSwitch(std::uint64_t stackPointer) const noexcept { return stackPointer < m_stretches[m_current].start; }

    // Goes on to the frame of a caller, `margin` bytes away from the other stretches when it switches stacks.
    //   returns false when the frame cannot be the caller's
    bool GoTo(std::uint64_t stackPointer, std::uint64_t margin) noexcept
    {
        const bool isSwitch = IsSwitch(stackPointer);
        for (unsigned i = 0; i <= m_current; ++i)
        {
            const Stretch& stretch = m_stretches[i];
            if (stackPointer < stretch.end && stackPointer + (isSwitch ? margin : 0) >= stretch.start)
            {
                return false;
            }
        }
        if (isSwitch)
        {
            if (++m_current == kMaxStretches)
            {
                return false;
            }
            m_stretches[m_current].start = stackPointer;
        }
        m_stretches[m_current].end = stackPointer;
        return true;
    }

private:
    static constexpr unsigned kMaxStretches = 16;

    struct Stretch
    {
        std::uint64_t start;
        std::uint64_t end;
    };

    Stretch m_stretches[kMaxStretches];
    unsigned m_current = 0;
};

class Walker
{
public:
    explicit Walker(const FrameRegisters& start) noexcept : m_registers(start), m_visited(start.StackPointer()) {}

    WalkResult Walk(void** frames, int capacity) noexcept
    {
        WalkResult result;
        for (int steps = 0; steps < kMaxSteps; ++steps)
        {
            // A return address of zero marks the end of a stack; an interrupted zero is a call through a null pointer.
            const bool isEnd = m_registers.ProgramCounter() == 0 && !m_isInterrupted;
            if (!isEnd && result.count < capacity)
            {
                frames[result.count++] = reinterpret_cast<void*>(m_registers.ProgramCounter());
            }
            const UnwindResult step = isEnd ? UnwindResult::END_OF_STACK : Step();
            if (step == UnwindResult::INTERRUPTED)
            {
                ++result.signalFrames;
            }
            if (step != UnwindResult::UNWOUND && step != UnwindResult::INTERRUPTED)
            {
                result.reachedEnd = step == UnwindResult::END_OF_STACK && !m_hasGuessed;
                break;
            }
        }
        return result;
    }

private:
    // Moves from the frame to its caller.
    UnwindResult Step() noexcept
    {
        FrameRegisters caller = m_registers;
        UnwindResult result = UnwindResult::NO_TABLES;
        if (const std::uintptr_t unwindHeader = ObjectAt(CallAddress()).unwindHeader; unwindHeader != 0)
        {
            result = UnwindFrame(m_reader, unwindHeader, CallAddress(), caller);
        }
        if (result == UnwindResult::NO_TABLES && IsSignalTrampoline() && LoadContext(m_registers.StackPointer(), caller))
        {
            result = UnwindResult::INTERRUPTED;
        }
        else if (result == UnwindResult::NO_TABLES && StepWithoutTables(caller))
        {
            result = UnwindResult::UNWOUND;
            m_hasGuessed = true;
        }
        if ((result == UnwindResult::UNWOUND || result == UnwindResult::INTERRUPTED) &&
            !MoveTo(caller, result == UnwindResult::INTERRUPTED))
        {
            return UnwindResult::NO_TABLES;
        }
        return result;
    }

    bool MoveTo(const FrameRegisters& caller, bool isInterrupted) noexcept
    {
        const std::uint64_t stackPointer = caller.StackPointer();
        // The interrupted function may have given up its frame: an unwinder jumps to where it resumes so.
        if (stackPointer == m_registers.StackPointer() && !m_isInterrupted)
        {
            return false;
        }
        // A saved register that damage has changed leads anywhere, and returned calls have left frames below the stack.
        if (!isInterrupted && m_visited.IsSwitch(stackPointer) && !IsReturnAddress(caller.ProgramCounter()))
        {
            return false;
        }
        if (!m_visited.GoTo(stackPointer, isInterrupted ? 0 : kStaleSize))
        {
            return false;
        }
        m_registers = caller;
        m_isInterrupted = isInterrupted;
        return true;
    }

    // An address within the call: a return address may already belong to the next function.
    std::uintptr_t CallAddress() const noexcept { return m_registers.ProgramCounter() - (m_isInterrupted ? 0 : 1); }

    // The object that holds the address; an empty one when there is none.
    const ElfObject& ObjectAt(std::uintptr_t address) noexcept
    {
        for (const ElfObject& object : m_objects)
        {
            if (object.Contains(address))
            {
                return object;
            }
        }
        m_latestObject = (m_latestObject + 1) % kObjectCount;
        FindObject(m_reader, address, m_objects[m_latestObject]);
        return m_objects[m_latestObject];
    }

    bool IsReturnAddress(std::uint64_t address) noexcept
    {
        unsigned char code[kLongestCall];
        return ObjectAt(address - 1).HasCodeAt(address - 1) && m_reader.Read(address - sizeof(code), code) &&
               EndsWithCall(code);
    }

    bool IsSignalTrampoline() noexcept
    {
        unsigned char code[sizeof(kSignalTrampoline)];
        return m_reader.Read(m_registers.ProgramCounter(), code) && std::memcmp(code, kSignalTrampoline, sizeof(code)) == 0;
    }

    bool LoadContext(std::uintptr_t context, FrameRegisters& interrupted) noexcept
    {
        gregset_t registers;
        if (!m_reader.Read(context + offsetof(ucontext_t, uc_mcontext.gregs), registers))
        {
            return false;
        }
        for (unsigned number = 0; number < FrameRegisters::kCount; ++number)
        {
            interrupted.Set(number, static_cast<std::uint64_t>(registers[kContextRegisters[number]]));
        }
        return true;
    }

    bool StepWithoutTables(FrameRegisters& caller) noexcept
    {
        const bool inCode = ObjectAt(CallAddress()).HasCodeAt(CallAddress());
        if (m_isInterrupted && !inCode && ReturnFromLeaf(caller))
        {
            return true;
        }
        return FollowFramePointer(caller) || (m_isInterrupted && inCode && ReturnFromLeaf(caller));
    }

    // As after a call through a bad pointer: nothing has been pushed on top of the return address.
    bool ReturnFromLeaf(FrameRegisters& caller) noexcept
    {
        std::uint64_t returnAddress;
        const std::uint64_t stackPointer = m_registers.StackPointer();
        if (!m_reader.Read(stackPointer, returnAddress) || !IsReturnAddress(returnAddress))
        {
            return false;
        }
        caller.Set(FrameRegisters::kProgramCounter, returnAddress);
        caller.Set(FrameRegisters::kStackPointer, stackPointer + sizeof(returnAddress));
        return true;
    }

    // As in code that a program generates at run time.
    bool FollowFramePointer(FrameRegisters& caller) noexcept
    {
        struct
        {
            std::uint64_t basePointer;
            std::uint64_t returnAddress;
        } frame;
        std::uint64_t basePointer;
        const std::uint64_t stackPointer = m_registers.StackPointer();
        if (!m_registers.Get(FrameRegisters::kBasePointer, basePointer) || basePointer % sizeof(basePointer) != 0 ||
            basePointer < stackPointer || basePointer - stackPointer > kMaxFrameSize || !m_reader.Read(basePointer, frame) ||
            !IsReturnAddress(frame.returnAddress))
        {
            return false;
        }
        caller.known = 0; // what else the function saved is not known
        caller.Set(FrameRegisters::kBasePointer, frame.basePointer);
        caller.Set(FrameRegisters::kProgramCounter, frame.returnAddress);
        caller.Set(FrameRegisters::kStackPointer, basePointer + sizeof(frame));
        return true;
    }

    MemoryReader m_reader;
    static constexpr std::size_t kObjectCount = 4;
    ElfObject m_objects[kObjectCount]; // of the latest frames: recursions go through the same ones again and again
    std::size_t m_latestObject = 0;
    FrameRegisters m_registers;
    VisitedStack m_visited;
    bool m_isInterrupted = false;
    bool m_hasGuessed = false; // a frame pointer may have led past frames, those of a signal handler, too
};

} // namespace

[[gnu::naked, gnu::noinline]] void CaptureValues(std::uint64_t* /*values*/) noexcept
{
    asm("movq %rbx, 3*8(%rdi)\n\t"
        "movq %rbp, 6*8(%rdi)\n\t"
        "leaq 8(%rsp), %rax\n\t"
        "movq %rax, 7*8(%rdi)\n\t"
        "movq %r12, 12*8(%rdi)\n\t"
        "movq %r13, 13*8(%rdi)\n\t"
        "movq %r14, 14*8(%rdi)\n\t"
        "movq %r15, 15*8(%rdi)\n\t"
        "movq (%rsp), %rax\n\t"
        "movq %rax, 16*8(%rdi)\n\t"
        "retq");
}

WalkResult WalkStack(const FrameRegisters& start, void** frames, int capacity) noexcept
{
    return Walker(start).Walk(frames, capacity);
}

} // namespace Unwind
