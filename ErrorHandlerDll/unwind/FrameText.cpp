#include "ErrorHandlerDll/unwind/FrameText.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>

namespace Unwind
{
namespace
{

constexpr unsigned kHexDigits = 2 * sizeof(std::uintptr_t);
constexpr std::size_t kTailSize = 64; // "+0x" and " [0x" with 16 digits each need 43

// Appends to a fixed buffer; what does not fit is dropped.
class Text
{
public:
    Text(char* out, std::size_t size) noexcept : m_out(out), m_size(size) { m_out[0] = '\0'; }

    void Append(const char* text) noexcept
    {
        for (; *text != '\0' && m_length + 1 < m_size; ++text)
        {
            m_out[m_length++] = *text;
        }
        m_out[m_length] = '\0';
    }

    void AppendHex(std::uintptr_t value) noexcept
    {
        char digits[kHexDigits + 1];
        char* first = digits + kHexDigits;
        *first = '\0';
        do
        {
            *--first = "0123456789abcdef"[value % 16];
            value /= 16;
        } while (value != 0);
        Append(first);
    }

    // A string of this process that may be unreadable, leaving at least `reserve` characters free.
    void AppendFrom(MemoryReader& reader, std::uintptr_t address, std::size_t reserve) noexcept
    {
        if (m_size - m_length > reserve + 1)
        {
            m_length += reader.ReadString(address, m_out + m_length, m_size - m_length - reserve);
        }
    }

    std::size_t Length() const noexcept { return m_length; }

private:
    char* m_out;
    std::size_t m_size;
    std::size_t m_length = 0;
};

// The C library prints zero as a pointer and with "%#x" in ways of its own.
void AppendNumber(Text& text, std::uintptr_t value, const char* prefix, const char* zero) noexcept
{
    text.Append(value == 0 ? zero : prefix);
    if (value != 0)
    {
        text.AppendHex(value);
    }
}

void AppendAddress(Text& text, std::uintptr_t address) noexcept
{
    text.Append("[");
    AppendNumber(text, address, "0x", "(nil)");
    text.Append("]");
}

// The linker's list has no name for the program itself; its text is that of the command line.
std::uintptr_t FindPath(const Module& module) noexcept
{
    return module.isExecutable ? reinterpret_cast<std::uintptr_t>(program_invocation_name) : module.name;
}

bool HasText(MemoryReader& reader, std::uintptr_t address) noexcept
{
    char first;
    return reader.Read(address, first) && first != '\0';
}

void AppendInObject(Text& text, MemoryReader& reader, const Module& module, const Symbol& symbol,
                    std::uintptr_t address) noexcept
{
    const bool hasSymbol = symbol.name != 0;
    const std::uintptr_t origin = hasSymbol ? symbol.start : module.loadAddress;

    char tailBuffer[kTailSize];
    Text tail(tailBuffer, sizeof(tailBuffer));
    if (origin != 0)
    {
        AppendNumber(tail, address - origin, "+0x", "+0");
    }
    tail.Append(") ");
    AppendAddress(tail, address);

    text.AppendFrom(reader, FindPath(module), tail.Length() + 1);
    text.Append("(");
    if (hasSymbol)
    {
        text.AppendFrom(reader, symbol.name, tail.Length());
    }
    text.Append(tailBuffer);
}

} // namespace

FrameTexts::FrameTexts(std::span<void* const> frames) noexcept : m_count(std::min(frames.size(), kMaxFrames))
{
    for (std::size_t i = 0; i < m_count; ++i)
    {
        m_frames[i].search.address = reinterpret_cast<std::uintptr_t>(frames[i]);
    }
    for (std::size_t i = 0; i < m_count; ++i)
    {
        if (!m_frames[i].isInObject)
        {
            LookUp(i);
        }
    }
}

// Finds the object of the frame, and the symbols of all frames that lie in it, too.
void FrameTexts::LookUp(std::size_t index) noexcept
{
    ElfObject object;
    if (!FindObject(m_reader, m_frames[index].search.address, object) || !HasText(m_reader, FindPath(object.module)))
    {
        return;
    }
    SymbolSearch* searches[kMaxFrames];
    std::size_t count = 0;
    for (Frame* frame = m_frames + index; frame != m_frames + m_count; ++frame)
    {
        if (object.Contains(frame->search.address))
        {
            frame->isInObject = true;
            frame->module = object.module;
            searches[count++] = &frame->search;
        }
    }
    FindSymbols(m_reader, object, {searches, count});
}

void FrameTexts::Format(std::size_t index, char* out, std::size_t size) noexcept
{
    const Frame& frame = m_frames[index];
    Text text(out, size);
    if (frame.isInObject)
    {
        AppendInObject(text, m_reader, frame.module, frame.search.symbol, frame.search.address);
    }
    else
    {
        AppendAddress(text, frame.search.address);
    }
}

} // namespace Unwind
