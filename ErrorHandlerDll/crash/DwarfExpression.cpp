#include "ErrorHandlerDll/crash/DwarfExpression.h"

#include "ErrorHandlerDll/crash/DwarfCursor.h"

namespace Crash
{
namespace
{

constexpr unsigned kStackDepth = 10; // the deepest expressions in use need four
constexpr unsigned kMaxSteps = 1000; // expressions can jump backwards; this ends those that never stop
constexpr std::size_t kMaxLength = 4096;

enum Operation : std::uint8_t
{
    ADDRESS = 0x03,
    DEREFERENCE = 0x06,
    CONST1U = 0x08,
    CONST1S = 0x09,
    CONST2U = 0x0a,
    CONST2S = 0x0b,
    CONST4U = 0x0c,
    CONST4S = 0x0d,
    CONST8U = 0x0e,
    CONST8S = 0x0f,
    CONSTU = 0x10,
    CONSTS = 0x11,
    DUP = 0x12,
    DROP = 0x13,
    OVER = 0x14,
    PICK = 0x15,
    SWAP = 0x16,
    ROT = 0x17,
    ABS = 0x19,
    AND = 0x1a,
    DIV = 0x1b,
    MINUS = 0x1c,
    MOD = 0x1d,
    MUL = 0x1e,
    NEG = 0x1f,
    NOT = 0x20,
    OR = 0x21,
    PLUS = 0x22,
    PLUS_UCONST = 0x23,
    SHL = 0x24,
    SHR = 0x25,
    SHRA = 0x26,
    XOR = 0x27,
    BRANCH = 0x28,
    EQ = 0x29,
    GE = 0x2a,
    GT = 0x2b,
    LE = 0x2c,
    LT = 0x2d,
    NE = 0x2e,
    SKIP = 0x2f,
    LIT0 = 0x30,
    LIT31 = 0x4f,
    REG0 = 0x50,
    REG31 = 0x6f,
    BREG0 = 0x70,
    BREG31 = 0x8f,
    REGX = 0x90,
    BREGX = 0x92,
    DEREFERENCE_SIZE = 0x94,
    NOP = 0x96,
};

class Machine
{
public:
    Machine(MemoryReader& reader, const FrameRegisters& registers, std::uintptr_t start, std::uintptr_t end) noexcept
        : m_reader(reader), m_registers(registers), m_start(start), m_end(end), m_cursor(reader, start, end)
    {
    }

    bool Run(std::uint64_t initial, std::uint64_t& result) noexcept
    {
        Push(initial);
        for (unsigned step = 0; m_cursor.HasMore() && !m_failed; ++step)
        {
            if (step == kMaxSteps)
            {
                return false;
            }
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
        }
        else
        {
            m_stack[m_depth++] = value;
        }
    }

    void PushSigned(std::int64_t value) noexcept { Push(static_cast<std::uint64_t>(value)); }

    std::uint64_t Pop() noexcept
    {
        if (m_depth == 0)
        {
            m_failed = true;
            return 0;
        }
        return m_stack[--m_depth];
    }

    void Pick(std::uint64_t index) noexcept
    {
        if (index < m_depth)
        {
            Push(m_stack[m_depth - 1 - index]);
        }
        else
        {
            m_failed = true;
        }
    }

    void PushRegister(std::uint64_t number, std::int64_t offset) noexcept
    {
        std::uint64_t value = 0;
        if (!m_registers.Get(number, value))
        {
            m_failed = true;
        }
        Push(value + static_cast<std::uint64_t>(offset));
    }

    void Dereference(std::size_t size) noexcept
    {
        std::uint64_t value = 0; // little endian: the low bytes come first
        if (size > sizeof(value) || !m_reader.Read(Pop(), &value, size))
        {
            m_failed = true;
        }
        Push(value);
    }

    void Jump(std::int16_t distance) noexcept
    {
        const std::uintptr_t target = m_cursor.Position() + static_cast<std::uintptr_t>(std::int64_t{distance});
        if (target < m_start || target > m_end)
        {
            m_failed = true;
        }
        else
        {
            m_cursor.MoveTo(target);
        }
    }

    void Rotate() noexcept
    {
        const std::uint64_t first = Pop();
        const std::uint64_t second = Pop();
        const std::uint64_t third = Pop();
        Push(first);
        Push(third);
        Push(second);
    }

    void Execute(std::uint8_t operation) noexcept
    {
        if (operation >= LIT0 && operation <= LIT31)
        {
            Push(operation - LIT0);
        }
        else if (operation >= REG0 && operation <= REG31)
        {
            PushRegister(operation - REG0, 0);
        }
        else if (operation >= BREG0 && operation <= BREG31)
        {
            PushRegister(operation - BREG0, m_cursor.TakeSigned());
        }
        else if (!ExecuteConstant(operation) && !ExecuteStack(operation) && !ExecuteUnary(operation))
        {
            ExecuteBinary(operation);
        }
    }

    bool ExecuteConstant(std::uint8_t operation) noexcept
    {
        switch (operation)
        {
        case ADDRESS:
        case CONST8U:
        case CONST8S:
            Push(m_cursor.Take<std::uint64_t>());
            return true;
        case CONST1U:
            Push(m_cursor.Take<std::uint8_t>());
            return true;
        case CONST1S:
            PushSigned(m_cursor.Take<std::int8_t>());
            return true;
        case CONST2U:
            Push(m_cursor.Take<std::uint16_t>());
            return true;
        case CONST2S:
            PushSigned(m_cursor.Take<std::int16_t>());
            return true;
        case CONST4U:
            Push(m_cursor.Take<std::uint32_t>());
            return true;
        case CONST4S:
            PushSigned(m_cursor.Take<std::int32_t>());
            return true;
        case CONSTU:
            Push(m_cursor.TakeUnsigned());
            return true;
        case CONSTS:
            PushSigned(m_cursor.TakeSigned());
            return true;
        case REGX:
            PushRegister(m_cursor.TakeUnsigned(), 0);
            return true;
        case BREGX:
        {
            const std::uint64_t number = m_cursor.TakeUnsigned();
            PushRegister(number, m_cursor.TakeSigned());
            return true;
        }
        default:
            return false;
        }
    }

    bool ExecuteStack(std::uint8_t operation) noexcept
    {
        switch (operation)
        {
        case DUP:
            Pick(0);
            return true;
        case DROP:
            Pop();
            return true;
        case OVER:
            Pick(1);
            return true;
        case PICK:
            Pick(m_cursor.Take<std::uint8_t>());
            return true;
        case SWAP:
        {
            const std::uint64_t first = Pop();
            const std::uint64_t second = Pop();
            Push(first);
            Push(second);
            return true;
        }
        case ROT:
            Rotate();
            return true;
        case SKIP:
            Jump(m_cursor.Take<std::int16_t>());
            return true;
        case BRANCH:
        {
            const auto distance = m_cursor.Take<std::int16_t>();
            if (Pop() != 0)
            {
                Jump(distance);
            }
            return true;
        }
        case NOP:
            return true;
        default:
            return false;
        }
    }

    bool ExecuteUnary(std::uint8_t operation) noexcept
    {
        switch (operation)
        {
        case DEREFERENCE:
            Dereference(sizeof(std::uint64_t));
            return true;
        case DEREFERENCE_SIZE:
            Dereference(m_cursor.Take<std::uint8_t>());
            return true;
        case ABS:
        {
            const std::uint64_t value = Pop();
            Push(static_cast<std::int64_t>(value) < 0 ? 0 - value : value);
            return true;
        }
        case NEG:
            Push(0 - Pop());
            return true;
        case NOT:
            Push(~Pop());
            return true;
        case PLUS_UCONST:
            Push(Pop() + m_cursor.TakeUnsigned());
            return true;
        default:
            return false;
        }
    }

    void ExecuteBinary(std::uint8_t operation) noexcept
    {
        const std::uint64_t right = Pop();
        const std::uint64_t left = Pop();
        std::uint64_t result = 0;
        if (Combine(operation, left, right, result))
        {
            Push(result);
        }
        else
        {
            m_failed = true;
        }
    }

    static std::uint64_t Shift(std::uint8_t operation, std::uint64_t value, std::uint64_t count) noexcept
    {
        const bool negative = operation == SHRA && static_cast<std::int64_t>(value) < 0;
        if (count >= 64)
        {
            return negative ? ~std::uint64_t{0} : 0;
        }
        if (operation == SHL)
        {
            return value << count;
        }
        return negative ? ~(~value >> count) : value >> count;
    }

    static bool Divide(std::int64_t left, std::int64_t right, std::uint64_t& result) noexcept
    {
        if (right == 0)
        {
            return false;
        }
        result = right == -1 ? 0 - static_cast<std::uint64_t>(left) : static_cast<std::uint64_t>(left / right);
        return true;
    }

    static bool Combine(std::uint8_t operation, std::uint64_t left, std::uint64_t right, std::uint64_t& result) noexcept
    {
        const auto signedLeft = static_cast<std::int64_t>(left);
        const auto signedRight = static_cast<std::int64_t>(right);
        switch (operation)
        {
        case AND:
            result = left & right;
            return true;
        case OR:
            result = left | right;
            return true;
        case XOR:
            result = left ^ right;
            return true;
        case PLUS:
            result = left + right;
            return true;
        case MINUS:
            result = left - right;
            return true;
        case MUL:
            result = left * right;
            return true;
        case DIV:
            return Divide(signedLeft, signedRight, result);
        case MOD:
            if (right == 0)
            {
                return false;
            }
            result = left % right;
            return true;
        case SHL:
        case SHR:
        case SHRA:
            result = Shift(operation, left, right);
            return true;
        case EQ:
            result = left == right;
            return true;
        case NE:
            result = left != right;
            return true;
        case GE:
            result = signedLeft >= signedRight;
            return true;
        case GT:
            result = signedLeft > signedRight;
            return true;
        case LE:
            result = signedLeft <= signedRight;
            return true;
        case LT:
            result = signedLeft < signedRight;
            return true;
        default:
            return false;
        }
    }

    MemoryReader& m_reader;
    const FrameRegisters& m_registers;
    const std::uintptr_t m_start;
    const std::uintptr_t m_end;
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

} // namespace Crash
