#include "ErrorHandlerDll/unwind/DwarfExpression.h"

#include "ErrorHandlerDll/unwind/DwarfCursor.h"

namespace Unwind
{
namespace
{

constexpr unsigned kStackDepth = 10; // the deepest expressions in use need four
constexpr std::size_t kMaxLength = 4096;

// What linkers write for the stubs of lazily bound functions, compilers for realigned frames and the C library for signal
// frames. The unwind tables of four hundred libraries of a Debian system use no other operation.
enum Operation : std::uint8_t
{
    DEREFERENCE = 0x06,
    AND = 0x1a,
    MUL = 0x1e,
    PLUS = 0x22,
    PLUS_UCONST = 0x23,
    SHL = 0x24,
    GE = 0x2a,
    LIT0 = 0x30,
    LIT31 = 0x4f,
    BREG0 = 0x70,
    BREG31 = 0x8f,
};

class Machine
{
public:
    Machine(MemoryReader& reader, const FrameRegisters& registers, std::uintptr_t start, std::uintptr_t end) noexcept
        : m_reader(reader), m_registers(registers), m_cursor(reader, start, end)
    {
    }

    bool Run(std::uint64_t initial, std::uint64_t& result) noexcept
    {
        Push(initial);
        while (m_cursor.HasMore() && !m_failed)
        {
            Execute(m_cursor.Take<std::uint8_t>());
        }
        result = Pop();
        return !m_failed && !m_cursor.HasFailed();
    }

private:
    void Push(std::uint64_t value) noexcept
    {
        if (m_depth == kStackDepth)
        {
            m_failed = true;
            return;
        }
        m_stack[m_depth++] = value;
    }

    std::uint64_t Pop() noexcept
    {
        if (m_depth == 0)
        {
            m_failed = true;
            return 0;
        }
        return m_stack[--m_depth];
    }

    void PushRegister(std::uint64_t number, std::int64_t offset) noexcept
    {
        std::uint64_t value = 0;
        m_failed |= !m_registers.Get(number, value);
        Push(value + static_cast<std::uint64_t>(offset));
    }

    void Dereference() noexcept
    {
        std::uint64_t value = 0;
        m_failed |= !m_reader.Read(Pop(), value);
        Push(value);
    }

    void Execute(std::uint8_t operation) noexcept
    {
        if (operation >= LIT0 && operation <= LIT31)
        {
            Push(operation - LIT0);
        }
        else if (operation >= BREG0 && operation <= BREG31)
        {
            PushRegister(operation - BREG0, m_cursor.TakeSigned());
        }
        else if (operation == DEREFERENCE)
        {
            Dereference();
        }
        else if (operation == PLUS_UCONST)
        {
            Push(Pop() + m_cursor.TakeUnsigned());
        }
        else
        {
            const std::uint64_t right = Pop();
            Combine(operation, Pop(), right);
        }
    }

    void Combine(std::uint8_t operation, std::uint64_t left, std::uint64_t right) noexcept
    {
        switch (operation)
        {
        case AND:
            return Push(left & right);
        case MUL:
            return Push(left * right);
        case PLUS:
            return Push(left + right);
        case SHL:
            return Push(right < 64 ? left << right : 0);
        case GE:
            return Push(static_cast<std::int64_t>(left) >= static_cast<std::int64_t>(right) ? 1 : 0);
        default:
            m_failed = true;
        }
    }

    MemoryReader& m_reader;
    const FrameRegisters& m_registers;
    DwarfCursor m_cursor;
    std::uint64_t m_stack[kStackDepth];
    unsigned m_depth = 0;
    bool m_failed = false;
};

} // namespace

bool EvaluateExpression(MemoryReader& reader, std::uintptr_t block, const FrameRegisters& registers, std::uint64_t initial,
                        std::uint64_t& result) noexcept
{
    DwarfCursor header(reader, block, ~std::uintptr_t{0});
    const std::uint64_t length = header.TakeUnsigned();
    if (header.HasFailed() || length > kMaxLength)
    {
        return false;
    }
    return Machine(reader, registers, header.Position(), header.Position() + length).Run(initial, result);
}

} // namespace Unwind
