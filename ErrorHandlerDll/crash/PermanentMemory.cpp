#include "ErrorHandlerDll/crash/PermanentMemory.h"

#include <algorithm>
#include <cstdlib>
#include <link.h>

namespace Crash
{
namespace
{

struct Range
{
    std::uintptr_t start = 0;
    std::uintptr_t end = 0;

    bool Contains(std::uintptr_t address) const noexcept { return address >= start && address < end; }
};

constinit Range gProgram;
constinit Range gCLibrary;
constinit Range gLoader;
constinit Range gThisLibrary;

Range GetRange(const dl_phdr_info& object) noexcept
{
    Range range = {UINTPTR_MAX, 0};
    for (const ElfW(Phdr)* segment = object.dlpi_phdr; segment != object.dlpi_phdr + object.dlpi_phnum; ++segment)
    {
        if (segment->p_type == PT_LOAD)
        {
            const std::uintptr_t start = object.dlpi_addr + segment->p_vaddr;
            range.start = std::min(range.start, start);
            range.end = std::max(range.end, start + segment->p_memsz);
        }
    }
    return range;
}

int LearnObject(dl_phdr_info* object, std::size_t, void* isFirst) noexcept
{
    const Range range = GetRange(*object);
    bool& isProgram = *static_cast<bool*>(isFirst);
    if (isProgram)
    {
        gProgram = range;
    }
    if (range.Contains(reinterpret_cast<std::uintptr_t>(&std::abort)))
    {
        gCLibrary = range;
    }
    if (range.Contains(reinterpret_cast<std::uintptr_t>(&_r_debug)))
    {
        gLoader = range;
    }
    if (range.Contains(reinterpret_cast<std::uintptr_t>(&gThisLibrary)))
    {
        gThisLibrary = range;
    }
    isProgram = false;
    return 0;
}

} // namespace

int LearnPermanentMemory() noexcept
{
    bool isFirst = true;
    return dl_iterate_phdr(LearnObject, &isFirst);
}

bool IsPermanentMemory(std::uintptr_t address, std::size_t size) noexcept
{
    for (const Range* range : {&gProgram, &gCLibrary, &gThisLibrary, &gLoader})
    {
        if (range->Contains(address))
        {
            return size <= range->end - address;
        }
    }
    return false;
}

} // namespace Crash
