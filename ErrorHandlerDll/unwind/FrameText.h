// The text of a stack frame, as backtrace_symbols gives it, made without the heap and without the loader.
#ifndef ERRORHANDLERDLL_UNWIND_FRAMETEXT_H
#define ERRORHANDLERDLL_UNWIND_FRAMETEXT_H

#include "ErrorHandlerDll/unwind/LoadedObjects.h"
#include "ErrorHandlerDll/unwind/MemoryReader.h"
#include "ErrorHandlerDll/unwind/SymbolTable.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace Unwind
{

class FrameTexts
{
public:
    static constexpr std::size_t kMaxFrames = 100;

    // Looks all return addresses up at once, each object's symbols in one pass.
    explicit FrameTexts(std::span<void* const> frames) noexcept;

    // Writes the text of a frame: "path(symbol+0x1f) [0x401b3f]", "path(+0x1b3f) [0x401b3f]", "path() [0x401b3f]" or
    // "[0x401b3f]".
    //   size    bytes at `out`; a longer text loses the ends of path and symbol, never the offset and the address; not 0
    //   signals async-signal-safe
    void Format(std::size_t index, char* out, std::size_t size) noexcept;

private:
    struct Frame
    {
        SymbolSearch search;
        Module module;
        bool isInObject = false;
    };

    void LookUp(std::size_t index) noexcept;

    MemoryReader m_reader;
    std::size_t m_count;
    Frame m_frames[kMaxFrames];
};

} // namespace Unwind

#endif
