#include "ErrorHandlerDll/unwind/LoadedObjects.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <elf.h>
#include <link.h>
#include <sys/auxv.h>

namespace Unwind
{
namespace
{

constexpr unsigned kMaxModules = 4096;  // far above what any process loads; ends a list that leads nowhere
constexpr unsigned kMaxNameSpaces = 64; // the C library has 16

constexpr unsigned kMaxDynamicEntries = 512;

} // namespace

std::uint64_t FindDynamicEntry(MemoryReader& reader, std::uintptr_t dynamic, std::int64_t tag) noexcept
{
    Elf64_Dyn entry;
    for (unsigned i = 0; i < kMaxDynamicEntries && reader.Read(dynamic + i * sizeof(entry), entry) && entry.d_tag != DT_NULL;
         ++i)
    {
        if (entry.d_tag == tag)
        {
            return entry.d_un.d_val;
        }
    }
    return 0;
}

ModuleList::ModuleList(MemoryReader& reader, Extent extent) noexcept
    : m_reader(reader), m_extent(extent), m_record(reinterpret_cast<std::uintptr_t>(&_r_debug))
{
    OpenList();
}

void ModuleList::OpenList() noexcept
{
    r_debug record;
    m_next = m_reader.Read(m_record, record) ? reinterpret_cast<std::uintptr_t>(record.r_map) : 0;
    m_damaged |= m_next == 0;
    m_record = m_extent == Extent::ALL_NAME_SPACES ? FindNextRecord() : 0;
}

// A program that itself refers to the record has a copy of it, without the link; its dynamic section knows the loader's own.
std::uintptr_t ModuleList::FindNextRecord() noexcept
{
    constexpr int kFirstVersionWithLink = 2;
    link_map program;
    if (!m_reader.Read(m_next, program))
    {
        return 0;
    }
    const auto loadersOwn = FindDynamicEntry(m_reader, reinterpret_cast<std::uintptr_t>(program.l_ld), DT_DEBUG);
    struct
    {
        r_debug record;
        std::uintptr_t next;
    } extended;
    const bool hasLink = m_reader.Read(loadersOwn != 0 ? loadersOwn : m_record, extended) &&
                         extended.record.r_version >= kFirstVersionWithLink;
    return hasLink ? extended.next : 0;
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
    while (m_next == 0)
    {
        if (m_record == 0 || ++m_nameSpaceCount == kMaxNameSpaces)
        {
            return false;
        }
        OpenList();
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

namespace
{

constexpr unsigned kMaxProgramHeaders = 256; // real objects have about a dozen

struct ProgramHeaders
{
    std::uintptr_t address = 0;
    std::uintptr_t count = 0;
};

// An executable that is not position-independent has load address 0, which says nothing about where its header is; the
// kernel tells the program where its program headers are.
ProgramHeaders FindExecutableHeaders() noexcept
{
    const int hostErrno = errno;
    const ProgramHeaders headers{getauxval(AT_PHDR), getauxval(AT_PHNUM)};
    errno = hostErrno;
    return headers;
}

ProgramHeaders FindHeaders(MemoryReader& reader, const Module& module) noexcept
{
    if (module.isExecutable)
    {
        return FindExecutableHeaders();
    }
    Elf64_Ehdr header;
    if (!reader.Read(module.loadAddress, header) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
        header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_phentsize != sizeof(Elf64_Phdr))
    {
        return {};
    }
    return {module.loadAddress + header.e_phoff, header.e_phnum};
}

void NoteSegment(ElfObject& object, const Elf64_Phdr& segment) noexcept
{
    const std::uintptr_t from = object.module.loadAddress + segment.p_vaddr;
    const std::uintptr_t to = from + segment.p_memsz;
    if (segment.p_type == PT_GNU_EH_FRAME)
    {
        object.unwindHeader = from;
    }
    if (segment.p_type != PT_LOAD || to < from)
    {
        return;
    }
    object.start = std::min(object.start, from & ~(kPageSize - 1));
    object.end = std::max(object.end, to);
    if ((segment.p_flags & PF_X) != 0)
    {
        object.codeStart = std::min(object.codeStart, from);
        object.codeEnd = std::max(object.codeEnd, to);
    }
}

bool Describe(MemoryReader& reader, ElfObject& object) noexcept
{
    const ProgramHeaders headers = FindHeaders(reader, object.module);
    if (headers.count > kMaxProgramHeaders)
    {
        return false;
    }
    for (std::uintptr_t i = 0; i < headers.count; ++i)
    {
        Elf64_Phdr segment;
        if (!reader.Read(headers.address + i * sizeof(segment), segment))
        {
            return false;
        }
        NoteSegment(object, segment);
    }
    return true;
}

// Objects do not overlap, so it is the one that begins last: as a rule, only its headers must be read.
bool FindNearest(MemoryReader& reader, std::uintptr_t address, ElfObject& object) noexcept
{
    object = ElfObject{};
    ModuleList modules(reader, ModuleList::Extent::ALL_NAME_SPACES);
    for (Module module; modules.Next(module);)
    {
        if (module.loadAddress <= address && module.loadAddress >= object.module.loadAddress)
        {
            object.module = module;
        }
    }
    return Describe(reader, object) && object.Contains(address);
}

// The segments of an object may lie far from its load address.
bool FindAnywhere(MemoryReader& reader, std::uintptr_t address, ElfObject& object) noexcept
{
    ModuleList modules(reader, ModuleList::Extent::ALL_NAME_SPACES);
    for (Module module; modules.Next(module);)
    {
        object = ElfObject{};
        object.module = module;
        if (Describe(reader, object) && object.Contains(address))
        {
            return true;
        }
    }
    return false;
}

} // namespace

bool FindObject(MemoryReader& reader, std::uintptr_t address, ElfObject& object) noexcept
{
    if (FindNearest(reader, address, object) || FindAnywhere(reader, address, object))
    {
        return true;
    }
    object = ElfObject{};
    return false;
}

} // namespace Unwind
