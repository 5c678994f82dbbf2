// The loaded objects: the dynamic linker's list of them, read without its lock and without trust in it, and where in an
// object its code and its unwind tables lie.
#ifndef ERRORHANDLERDLL_UNWIND_LOADEDOBJECTS_H
#define ERRORHANDLERDLL_UNWIND_LOADEDOBJECTS_H

#include "ErrorHandlerDll/unwind/MemoryReader.h"

#include <cstdint>

namespace Unwind
{

struct Module
{
    std::uintptr_t loadAddress = 0; // what the linker added to the addresses in the file
    std::uintptr_t name = 0;        // address of the path, to be read with care; the executable's is empty
    std::uintptr_t dynamic = 0;     // address of the dynamic section
    bool isExecutable = false;      // the program itself, always first

    bool operator==(const Module&) const = default;
};

// Usage: ModuleList modules(reader); Module module; while (modules.Next(module)) ...; then look at IsDamaged().
// Another thread or the interrupted code may be in the middle of changing the list; that alone does not end it.
//   signals  async-signal-safe
class ModuleList
{
public:
    enum class Extent
    {
        FIRST_NAME_SPACE, // the program's own
        ALL_NAME_SPACES,  // also those of dlmopen
    };

    explicit ModuleList(MemoryReader& reader, Extent extent = Extent::FIRST_NAME_SPACE) noexcept;

    // Moves to the next object; false at the end.
    bool Next(Module& module) noexcept;

    // After Next returned false: the list did not end properly (unreadable, a cycle, or longer than can be).
    bool IsDamaged() const noexcept { return m_damaged; }

private:
    void OpenList() noexcept;
    std::uintptr_t FindNextRecord() noexcept;
    bool NoteDamage() noexcept;

    MemoryReader& m_reader;
    const Extent m_extent;
    std::uintptr_t m_record; // of the next name space; 0: there is none
    std::uintptr_t m_next = 0;
    std::uintptr_t m_landmark = 0; // an entry already seen; meeting it again proves a cycle
    unsigned m_count = 0;
    unsigned m_nameSpaceCount = 0;
    bool m_damaged = false;
};

// The value of the first entry with the tag in a dynamic section; 0 when there is none.
std::uint64_t FindDynamicEntry(MemoryReader& reader, std::uintptr_t dynamic, std::int64_t tag) noexcept;

struct ElfObject
{
    Module module{};
    std::uintptr_t start = ~std::uintptr_t{0}; // all segments: [start, end)
    std::uintptr_t end = 0;
    std::uintptr_t codeStart = ~std::uintptr_t{0}; // executable segments: [codeStart, codeEnd)
    std::uintptr_t codeEnd = 0;
    std::uintptr_t unwindHeader = 0; // address of the search table over the unwind tables; 0 when there is none

    bool Contains(std::uintptr_t address) const noexcept { return address >= start && address < end; }
    bool HasCodeAt(std::uintptr_t address) const noexcept { return address >= codeStart && address < codeEnd; }
};

// Finds the object that holds `address`.
//   returns false when there is none, or the linker's list cannot be followed that far; `object` is then empty
//   signals async-signal-safe
bool FindObject(MemoryReader& reader, std::uintptr_t address, ElfObject& object) noexcept;

} // namespace Unwind

#endif
