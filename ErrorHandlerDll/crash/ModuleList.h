// The loaded objects in the dynamic linker's order, read without its lock and without trust in its list.
#ifndef ERRORHANDLERDLL_CRASH_MODULELIST_H
#define ERRORHANDLERDLL_CRASH_MODULELIST_H

#include "ErrorHandlerDll/crash/MemoryReader.h"

#include <cstddef>
#include <cstdint>

namespace Crash
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
    explicit ModuleList(MemoryReader& reader) noexcept;

    // Moves to the next object; false at the end.
    bool Next(Module& module) noexcept;

    // After Next returned false: the list did not end properly (unreadable, a cycle, or longer than can be).
    bool IsDamaged() const noexcept { return m_damaged; }

private:
    bool NoteDamage() noexcept;

    MemoryReader& m_reader;
    std::uintptr_t m_next = 0;
    std::uintptr_t m_landmark = 0; // an entry already seen; meeting it again proves a cycle
    unsigned m_count = 0;
    bool m_damaged = false;
};

} // namespace Crash

#endif
