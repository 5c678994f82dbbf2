#include "ErrorHandlerDll/unwind/CallFrameInfo.h"

#include "ErrorHandlerDll/unwind/DwarfCursor.h"
#include "ErrorHandlerDll/unwind/DwarfExpression.h"
#include "ErrorHandlerDll/unwind/FrameTable.h"

namespace Unwind
{
namespace
{

// One frame in another remembers its state while an early exit is described; compilers nest this once or twice.
constexpr unsigned kMaxRemembered = 3;

constexpr unsigned kMaxInstructions = 1u << 18; // per frame; ends what damage makes endless

enum class Rule : std::uint8_t
{
    UNCHANGED, // the caller's value is still in the register
    UNDEFINED,
    AT_OFFSET,     // saved at the frame address plus a number
    REGISTER,      // in another register
    AT_EXPRESSION, // saved at the address that an expression gives
};

// Where the caller's registers are, for one range of instructions. Expressions are kept as the distance of their block from
// the start of the tables: 32 bits per register keep the walk's use of stack small.
struct Row
{
    std::int32_t operands[FrameRegisters::kCount];
    Rule rules[FrameRegisters::kCount];
    bool isFrameExpression; // how the frame address (CFA) is given
    std::uint8_t frameRegister;
    std::int32_t frameOperand;
};

// The instructions that compilers, assemblers and linkers write; the standard's others end the walk by tables.
enum Instruction : std::uint8_t
{
    NOP = 0x00,
    ADVANCE_LOC1 = 0x02,
    ADVANCE_LOC2 = 0x03,
    ADVANCE_LOC4 = 0x04,
    OFFSET_EXTENDED = 0x05,
    RESTORE_EXTENDED = 0x06,
    UNDEFINED = 0x07,
    SAME_VALUE = 0x08,
    REGISTER = 0x09,
    REMEMBER_STATE = 0x0a,
    RESTORE_STATE = 0x0b,
    DEF_CFA = 0x0c,
    DEF_CFA_REGISTER = 0x0d,
    DEF_CFA_OFFSET = 0x0e,
    DEF_CFA_EXPRESSION = 0x0f,
    EXPRESSION = 0x10,
    OFFSET_EXTENDED_SF = 0x11,
    GNU_ARGS_SIZE = 0x2e,
    // These three hold an operand in the bits of kOperandMask.
    ADVANCE_LOC = 0x40,
    OFFSET = 0x80,
    RESTORE = 0xc0,
};

constexpr std::uint8_t kOperandMask = 0x3f;

// Runs the instructions of an entry up to the row that covers the address.
class RowBuilder
{
public:
    RowBuilder(MemoryReader& reader, const FrameEntry& entry, std::uintptr_t address, std::uintptr_t base) noexcept
        : m_reader(reader), m_entry(entry), m_address(address), m_base(base), m_location(entry.codeStart), m_row{}
    {
    }

    bool Build() noexcept
    {
        if (!Run(m_entry.commonInstructions, m_entry.commonEnd))
        {
            return false;
        }
        m_initial = m_row;
        return Run(m_entry.instructions, m_entry.end);
    }

    const Row& Result() const noexcept { return m_row; }

private:
    bool Run(std::uintptr_t start, std::uintptr_t end) noexcept
    {
        DwarfCursor cursor(m_reader, start, end);
        for (unsigned count = 0; cursor.HasMore() && !m_failed && m_location <= m_address; ++count)
        {
            if (count == kMaxInstructions)
            {
                return false;
            }
            Execute(cursor, cursor.Take<std::uint8_t>());
        }
        return !m_failed && !cursor.HasFailed();
    }

    void Advance(std::uint64_t delta) noexcept { m_location += delta * m_entry.codeAlignment; }

    bool Check(bool isSound) noexcept
    {
        m_failed |= !isSound;
        return isSound;
    }

    // In unsigned numbers, as damaged tables may say anything.
    std::int64_t Scaled(std::uint64_t offset) const noexcept
    {
        return static_cast<std::int64_t>(offset * static_cast<std::uint64_t>(m_entry.dataAlignment));
    }

    std::int32_t Narrow(std::int64_t value) noexcept
    {
        const auto narrow = static_cast<std::int32_t>(value);
        Check(narrow == value);
        return narrow;
    }

    // Registers beyond those of the integer unit (vector registers, say) do not matter to a walk.
    void SetRule(std::uint64_t number, Rule rule, std::int64_t operand) noexcept
    {
        if (number < FrameRegisters::kCount)
        {
            m_row.rules[number] = rule;
            m_row.operands[number] = Narrow(operand);
        }
    }

    std::int64_t TakeBlock(DwarfCursor& cursor) noexcept
    {
        const auto distance = static_cast<std::int64_t>(cursor.Position() - m_base);
        cursor.Skip(cursor.TakeUnsigned());
        return distance;
    }

    void Restore(std::uint64_t number) noexcept
    {
        if (number < FrameRegisters::kCount)
        {
            SetRule(number, m_initial.rules[number], m_initial.operands[number]);
        }
    }

    void SetFrameRegister(std::uint64_t number) noexcept
    {
        m_row.isFrameExpression = false;
        m_row.frameRegister = Check(number < FrameRegisters::kCount) ? static_cast<std::uint8_t>(number) : std::uint8_t{0};
    }

    void SetFrameOffset(std::uint64_t offset) noexcept { m_row.frameOperand = Narrow(static_cast<std::int64_t>(offset)); }

    void Remember() noexcept
    {
        if (Check(m_rememberedCount < kMaxRemembered))
        {
            m_remembered[m_rememberedCount++] = m_row;
        }
    }

    void RestoreRemembered() noexcept
    {
        if (Check(m_rememberedCount > 0))
        {
            m_row = m_remembered[--m_rememberedCount];
        }
    }

    void Execute(DwarfCursor& cursor, std::uint8_t instruction) noexcept
    {
        const std::uint8_t operand = instruction & kOperandMask;
        const std::uint8_t kind = instruction & ~kOperandMask;
        switch (kind != 0 ? kind : instruction)
        {
        case NOP:
            return;
        case ADVANCE_LOC:
            return Advance(operand);
        case ADVANCE_LOC1:
            return Advance(cursor.Take<std::uint8_t>());
        case ADVANCE_LOC2:
            return Advance(cursor.Take<std::uint16_t>());
        case ADVANCE_LOC4:
            return Advance(cursor.Take<std::uint32_t>());
        case OFFSET:
            return SetRule(operand, Rule::AT_OFFSET, Scaled(cursor.TakeUnsigned()));
        case RESTORE:
            return Restore(operand);
        case REMEMBER_STATE:
            return Remember();
        case RESTORE_STATE:
            return RestoreRemembered();
        case DEF_CFA:
            SetFrameRegister(cursor.TakeUnsigned());
            return SetFrameOffset(cursor.TakeUnsigned());
        case DEF_CFA_REGISTER:
            return SetFrameRegister(cursor.TakeUnsigned());
        case DEF_CFA_OFFSET:
            return SetFrameOffset(cursor.TakeUnsigned());
        case DEF_CFA_EXPRESSION:
            m_row.isFrameExpression = true;
            m_row.frameOperand = Narrow(TakeBlock(cursor));
            return;
        case GNU_ARGS_SIZE:
            cursor.TakeUnsigned(); // only matters to exceptions
            return;
        default:
            ExecuteRule(cursor, instruction, cursor.TakeUnsigned());
        }
    }

    void ExecuteRule(DwarfCursor& cursor, std::uint8_t instruction, std::uint64_t number) noexcept
    {
        switch (instruction)
        {
        case OFFSET_EXTENDED:
            return SetRule(number, Rule::AT_OFFSET, Scaled(cursor.TakeUnsigned()));
        case OFFSET_EXTENDED_SF:
            return SetRule(number, Rule::AT_OFFSET, Scaled(static_cast<std::uint64_t>(cursor.TakeSigned())));
        case UNDEFINED:
            return SetRule(number, Rule::UNDEFINED, 0);
        case SAME_VALUE:
            return SetRule(number, Rule::UNCHANGED, 0);
        case REGISTER:
            return SetRule(number, Rule::REGISTER, static_cast<std::int64_t>(cursor.TakeUnsigned()));
        case EXPRESSION:
            return SetRule(number, Rule::AT_EXPRESSION, TakeBlock(cursor));
        case RESTORE_EXTENDED:
            return Restore(number);
        default:
            m_failed = true;
        }
    }

    MemoryReader& m_reader;
    const FrameEntry& m_entry;
    const std::uintptr_t m_address;
    const std::uintptr_t m_base;
    std::uintptr_t m_location;
    Row m_row;
    Row m_initial{};
    Row m_remembered[kMaxRemembered];
    unsigned m_rememberedCount = 0;
    bool m_failed = false;
};

// Applies a row to the registers of a frame.
struct RowReader
{
    MemoryReader& reader;
    const Row& row;
    const FrameRegisters& registers;
    const std::uintptr_t base;
    std::uint64_t frame = 0; // its address (CFA)

    UnwindResult Apply(const FrameEntry& entry, FrameRegisters& caller) noexcept
    {
        if (row.rules[entry.returnRegister] == Rule::UNDEFINED)
        {
            return UnwindResult::END_OF_STACK;
        }
        if (!ComputeFrame())
        {
            return UnwindResult::NO_TABLES;
        }
        for (unsigned number = 0; number < FrameRegisters::kCount; ++number)
        {
            if (std::uint64_t value; GetCallerValue(number, value))
            {
                caller.Set(number, value);
            }
        }
        std::uint64_t returnAddress;
        if (!caller.Get(entry.returnRegister, returnAddress) || !caller.IsKnown(FrameRegisters::kStackPointer))
        {
            return UnwindResult::NO_TABLES;
        }
        caller.Set(FrameRegisters::kProgramCounter, returnAddress);
        return entry.isSignalFrame ? UnwindResult::INTERRUPTED : UnwindResult::UNWOUND;
    }

    bool ComputeFrame() noexcept
    {
        if (row.isFrameExpression)
        {
            return EvaluateExpression(reader, base + Offset(row.frameOperand), registers, 0, frame);
        }
        const bool isKnown = registers.Get(row.frameRegister, frame);
        frame += Offset(row.frameOperand);
        return isKnown;
    }

    bool GetCallerValue(unsigned number, std::uint64_t& value) noexcept
    {
        const std::uint64_t operand = Offset(row.operands[number]);
        switch (row.rules[number])
        {
        case Rule::UNCHANGED:
            // Returning removes the frame, so the caller's stack begins where the frame ends unless the tables say
            // otherwise.
            value = frame;
            return number == FrameRegisters::kStackPointer || registers.Get(number, value);
        case Rule::AT_OFFSET:
            return reader.Read(frame + operand, value);
        case Rule::REGISTER:
            return registers.Get(operand, value);
        case Rule::AT_EXPRESSION:
            return EvaluateExpression(reader, base + operand, registers, frame, value) && reader.Read(value, value);
        case Rule::UNDEFINED:
            break;
        }
        return false;
    }

    static std::uint64_t Offset(std::int32_t operand) noexcept { return static_cast<std::uint64_t>(std::int64_t{operand}); }
};

} // namespace

UnwindResult UnwindFrame(MemoryReader& reader, std::uintptr_t unwindHeader, std::uintptr_t address,
                         FrameRegisters& registers) noexcept
{
    FrameEntry entry;
    if (!FindFrameEntry(reader, unwindHeader, address, entry))
    {
        return UnwindResult::NO_TABLES;
    }
    RowBuilder builder(reader, entry, address, unwindHeader);
    if (!builder.Build())
    {
        return UnwindResult::NO_TABLES;
    }
    FrameRegisters caller;
    const UnwindResult result = RowReader{reader, builder.Result(), registers, unwindHeader}.Apply(entry, caller);
    if (result == UnwindResult::UNWOUND || result == UnwindResult::INTERRUPTED)
    {
        registers = caller;
    }
    return result;
}

} // namespace Unwind
