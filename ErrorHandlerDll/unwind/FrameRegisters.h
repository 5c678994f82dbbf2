// The registers of one stack frame, numbered as unwind tables number them on x86-64.
#ifndef ERRORHANDLERDLL_UNWIND_FRAMEREGISTERS_H
#define ERRORHANDLERDLL_UNWIND_FRAMEREGISTERS_H

#include <cstdint>

namespace Unwind
{

struct FrameRegisters
{
    static constexpr unsigned kBasePointer = 6;
    static constexpr unsigned kStackPointer = 7;
    static constexpr unsigned kProgramCounter = 16;
    static constexpr unsigned kCount = 17;

    std::uint64_t values[kCount];
    std::uint32_t known = 0; // one bit each: a callee does not preserve all registers of its caller

    bool IsKnown(std::uint64_t number) const noexcept { return number < kCount && (known >> number & 1) != 0; }

    bool Get(std::uint64_t number, std::uint64_t& value) const noexcept
    {
        if (!IsKnown(number))
        {
            return false;
        }
        value = values[number];
        return true;
    }

    void Set(unsigned number, std::uint64_t value) noexcept
    {
        values[number] = value;
        known |= 1u << number;
    }

    std::uint64_t ProgramCounter() const noexcept { return values[kProgramCounter]; }
    std::uint64_t StackPointer() const noexcept { return values[kStackPointer]; }
};

// Notes the registers that a function keeps for its caller, as they are in the calling function, at the instruction behind
// the call.
void CaptureValues(std::uint64_t* values) noexcept;
[[gnu::always_inline]] inline void CaptureRegisters(FrameRegisters& registers) noexcept
{
    constexpr std::uint32_t kCaptured = 1u << 3 | 1u << 6 | 1u << 7 | 0xfu << 12 | 1u << 16;
    CaptureValues(registers.values);
    registers.known = kCaptured;
}

} // namespace Unwind

#endif
