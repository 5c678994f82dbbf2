#include "ErrorHandlerDll/crash/FrameSymbols.h"

#include <algorithm>

namespace Crash
{
namespace
{

constexpr std::size_t kMostFrames = 100;

// In no order, each address once. Only for the owner of the reader's reserve.
constinit SymbolSearch gExpected[kMostFrames];
constinit std::size_t gExpectedCount = 0;

SymbolSearch* FindExpected(std::uintptr_t address) noexcept
{
    SymbolSearch* const end = gExpected + gExpectedCount;
    SymbolSearch* const found =
        std::find_if(gExpected, end, [=](const SymbolSearch& search) { return search.address == address; });
    return found == end ? nullptr : found;
}

void SearchAllIn(MemoryReader& reader, const ElfObject& object) noexcept
{
    SymbolSearch* const end = std::partition(gExpected, gExpected + gExpectedCount,
                                             [&](const SymbolSearch& search) { return object.Contains(search.address); });
    FindSymbols(reader, object, {gExpected, end});
}

} // namespace

void ExpectFrames(std::span<void* const> frames) noexcept
{
    const MemoryReader owner;
    if (!owner.HasReserve())
    {
        return;
    }
    gExpectedCount = 0;
    for (void* const frame : frames)
    {
        const auto address = reinterpret_cast<std::uintptr_t>(frame);
        if (gExpectedCount < kMostFrames && FindExpected(address) == nullptr)
        { // recursion repeats the same few
            gExpected[gExpectedCount++] = {.address = address, .searchedIn = {}, .symbol = {}};
        }
    }
}

Symbol FindFrameSymbol(MemoryReader& reader, const ElfObject& object, std::uintptr_t address) noexcept
{
    const SymbolSearch* expected = reader.HasReserve() ? FindExpected(address) : nullptr;
    if (expected == nullptr)
    {
        SymbolSearch search = {.address = address, .searchedIn = {}, .symbol = {}};
        FindSymbols(reader, object, {&search, 1});
        return search.symbol;
    }
    if (expected->searchedIn != object.module)
    {
        SearchAllIn(reader, object);
        expected = FindExpected(address);
    }
    return expected == nullptr ? Symbol{} : expected->symbol; // a fault may have ended an earlier search half-way
}

} // namespace Crash
