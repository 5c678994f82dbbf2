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

// Positions of the registers in a signal context, in the order of the unwind tables' numbers.
constexpr int kContextRegisters[FrameRegisters::kCount] = {REG_RAX, REG_RDX, REG_RCX, REG_RBX, REG_RSI, REG_RDI,
                                                           REG_RBP, REG_RSP, REG_R8,  REG_R9,  REG_R10, REG_R11,
                                                           REG_R12, REG_R13, REG_R14, REG_R15, REG_RIP};

// What a signal handler returns to: mov $SYS_rt_sigreturn, %rax; syscall.
constexpr unsigned char kSignalTrampoline[] = {0x48, 0xc7, 0xc0, 0x0f, 0x00, 0x00, 0x00, 0x0f, 0x05};

class Walker
{
public:
    bool LoadContext(std::uintptr_t context) noexcept
    {
        gregset_t registers;
        if (!m_reader.Read(context + offsetof(ucontext_t, uc_mcontext.gregs), registers))
        {
            return false;
        }
        for (unsigned number = 0; number < FrameRegisters::kCount; ++number)
        {
            m_registers.Set(number, static_cast<std::uint64_t>(registers[kContextRegisters[number]]));
        }
        m_interrupted = true;
        return true;
    }

    FrameRegisters& Registers() noexcept { return m_registers; }

    // Moves from the frame to its caller; false where the stack ends or cannot be followed.
    bool Step() noexcept
    {
        const UnwindResult result = StepByTables();
        if (result != UnwindResult::NO_TABLES)
        {
            return result != UnwindResult::END_OF_STACK;
        }
        if (IsSignalTrampoline())
        {
            return LoadContext(m_registers.StackPointer());
        }
        return StepWithoutTables();
    }

    UnwindResult StepByTables() noexcept
    {
        if (!Locate(CallAddress()) || m_object.unwindHeader == 0)
        {
            return UnwindResult::NO_TABLES;
        }
        const std::uint64_t stackPointer = m_registers.StackPointer();
        const bool wasInterrupted = m_interrupted;
        const UnwindResult result = UnwindFrame(m_reader, m_object.unwindHeader, CallAddress(), m_registers);
        if (result == UnwindResult::UNWOUND || result == UnwindResult::INTERRUPTED)
        {
            m_interrupted = result == UnwindResult::INTERRUPTED;
        }
        // Only a signal moves to another stack; otherwise a caller's frame lies above, or the walk would go round in
        // circles. But the interrupted function may have given up its frame: an unwinder jumps to where it resumes so.
        const std::uint64_t callersStackPointer = m_registers.StackPointer();
        if (result == UnwindResult::UNWOUND &&
            (callersStackPointer < stackPointer || (callersStackPointer == stackPointer && !wasInterrupted)))
        {
            return UnwindResult::END_OF_STACK;
        }
        return result;
    }

    int Walk(void** frames, int capacity) noexcept
    {
        int count = 0;
        // A return address of zero marks the end of a stack; an interrupted zero is a call through a null pointer.
        while (count < capacity && (m_registers.ProgramCounter() != 0 || m_interrupted))
        {
            frames[count++] = reinterpret_cast<void*>(m_registers.ProgramCounter());
            if (!Step())
            {
                break;
            }
        }
        return count;
    }

private:
    // An address within the call: a return address may already belong to the next function.
    std::uintptr_t CallAddress() const noexcept { return m_registers.ProgramCounter() - (m_interrupted ? 0 : 1); }

    bool Locate(std::uintptr_t address) noexcept
    {
        return m_object.Contains(address) || FindObject(m_reader, address, m_object);
    }

    bool IsReturnAddress(std::uint64_t address) noexcept
    {
        return address != 0 && Locate(address - 1) && m_object.HasCodeAt(address - 1);
    }

    bool IsSignalTrampoline() noexcept
    {
        unsigned char code[sizeof(kSignalTrampoline)];
        return m_reader.Read(m_registers.ProgramCounter(), code) && std::memcmp(code, kSignalTrampoline, sizeof(code)) == 0;
    }

    bool StepWithoutTables() noexcept
    {
        const bool inCode = Locate(CallAddress()) && m_object.HasCodeAt(CallAddress());
        if (m_interrupted && !inCode && ReturnFromLeaf())
        {
            return true;
        }
        return FollowFramePointer() || (m_interrupted && inCode && ReturnFromLeaf());
    }

    // As after a call through a bad pointer: nothing has been pushed on top of the return address.
    bool ReturnFromLeaf() noexcept
    {
        std::uint64_t returnAddress;
        const std::uint64_t stackPointer = m_registers.StackPointer();
        if (!m_reader.Read(stackPointer, returnAddress) || !IsReturnAddress(returnAddress))
        {
            return false;
        }
        m_registers.Set(FrameRegisters::kProgramCounter, returnAddress);
        m_registers.Set(FrameRegisters::kStackPointer, stackPointer + sizeof(returnAddress));
        m_interrupted = false;
        return true;
    }

    // As in code that a program generates at run time.
    bool FollowFramePointer() noexcept
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
        m_registers.known = 0; // what else the function saved is not known
        m_registers.Set(FrameRegisters::kBasePointer, frame.basePointer);
        m_registers.Set(FrameRegisters::kProgramCounter, frame.returnAddress);
        m_registers.Set(FrameRegisters::kStackPointer, basePointer + sizeof(frame));
        m_interrupted = false;
        return true;
    }

    MemoryReader m_reader;
    ElfObject m_object; // of the latest frame: neighbours mostly share it
    FrameRegisters m_registers;
    bool m_interrupted = false;
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

int WalkStack(const FrameRegisters& start, void** frames, int capacity) noexcept
{
    Walker walker;
    walker.Registers() = start;
    return walker.Walk(frames, capacity);
}

} // namespace Unwind
