#include "ErrorHandlerDll/crash/ModuleList.h"

#include <link.h>

namespace Crash
{
namespace
{

constexpr unsigned kMaxModules = 4096; // far above what any process loads; ends a list that leads nowhere

} // namespace

ModuleList::ModuleList(MemoryReader& reader) noexcept : m_reader(reader)
{
    r_debug debug;
    if (m_reader.Read(reinterpret_cast<std::uintptr_t>(&_r_debug), debug))
    {
        m_next = reinterpret_cast<std::uintptr_t>(debug.r_map);
    }
    m_damaged = m_next == 0;
}

bool ModuleList::NoteDamage() noexcept
{
    m_damaged = true;
    m_next = 0;
    return false;
}

// The back links are no test for damage: they disagree for an instant whenever an object is taken out of the list.
bool ModuleList::Next(Module& module) noexcept
{
    if (m_next == 0)
    {
        return false;
    }
    link_map entry;
    if (m_count == kMaxModules || m_next == m_landmark || !m_reader.Read(m_next, entry))
    {
        return NoteDamage();
    }

    module.loadAddress = entry.l_addr;
    module.name = reinterpret_cast<std::uintptr_t>(entry.l_name);
    module.dynamic = reinterpret_cast<std::uintptr_t>(entry.l_ld);
    module.isExecutable = m_count == 0;

    // The landmark moves at each power of two, so a cycle is met before it has been gone round three times.
    if ((m_count & (m_count + 1)) == 0)
    {
        m_landmark = m_next;
    }
    ++m_count;
    m_next = reinterpret_cast<std::uintptr_t>(entry.l_next);
    return true;
}

} // namespace Crash
