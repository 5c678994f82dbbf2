#include "ErrorHandlerDll/unwind/SymbolTable.h"

#include <algorithm>
#include <elf.h>

namespace Unwind
{
namespace
{

constexpr std::uint32_t kMaxSymbols = 1u << 21;

struct Tables
{
    std::uintptr_t symbols = 0;
    std::uintptr_t strings = 0;
    std::uint64_t stringsSize = 0;
    std::uintptr_t gnuHash = 0;
    std::uintptr_t hash = 0;
};

// Indices [first, end) of the symbols that count.
struct Range
{
    std::uint32_t first = 0;
    std::uint32_t end = 0;
};

// The linker has relocated these addresses in place, except where the section cannot be written to.
std::uintptr_t FindTable(MemoryReader& reader, const ElfObject& object, std::int64_t tag) noexcept
{
    const std::uintptr_t address = FindDynamicEntry(reader, object.module.dynamic, tag);
    return address != 0 && address < object.module.loadAddress ? address + object.module.loadAddress : address;
}

Tables FindTables(MemoryReader& reader, const ElfObject& object) noexcept
{
    return {FindTable(reader, object, DT_SYMTAB), FindTable(reader, object, DT_STRTAB),
            FindDynamicEntry(reader, object.module.dynamic, DT_STRSZ), FindTable(reader, object, DT_GNU_HASH),
            FindTable(reader, object, DT_HASH)};
}

// This table covers the symbols from `symbolOffset` on, without a count: the last chain that a bucket begins ends with them.
bool ReadGnuRange(MemoryReader& reader, std::uintptr_t table, Range& range) noexcept
{
    struct
    {
        std::uint32_t bucketCount;
        std::uint32_t symbolOffset;
        std::uint32_t filterSize;
        std::uint32_t filterShift;
    } header;
    if (!reader.Read(table, header) || header.bucketCount > kMaxSymbols || header.filterSize > kMaxSymbols)
    {
        return false;
    }
    const std::uintptr_t buckets = table + sizeof(header) + header.filterSize * sizeof(std::uint64_t);
    const std::uintptr_t chains = buckets + header.bucketCount * sizeof(std::uint32_t);
    std::uint32_t last = 0;
    for (std::uint32_t i = 0; i < header.bucketCount; ++i)
    {
        std::uint32_t first;
        if (!reader.Read(buckets + i * sizeof(first), first))
        {
            return false;
        }
        last = std::max(first, last);
    }
    range = {header.symbolOffset, header.symbolOffset};
    if (last < header.symbolOffset)
    {
        return true;
    }
    for (; last < kMaxSymbols; ++last)
    {
        std::uint32_t value;
        if (!reader.Read(chains + std::uintptr_t{last - header.symbolOffset} * sizeof(value), value))
        {
            return false;
        }
        range.end = last + 1;
        if ((value & 1) != 0)
        {
            return true;
        }
    }
    return false;
}

bool ReadHashRange(MemoryReader& reader, std::uintptr_t table, Range& range) noexcept
{
    return reader.Read(table + sizeof(std::uint32_t), range.end) && range.end < kMaxSymbols;
}

bool ReadRange(MemoryReader& reader, const Tables& tables, Range& range) noexcept
{
    if (tables.gnuHash != 0)
    {
        return ReadGnuRange(reader, tables.gnuHash, range);
    }
    if (tables.hash != 0)
    {
        return ReadHashRange(reader, tables.hash, range);
    }
    // Without a hash table nothing gives the number of symbols; the strings usually follow them.
    if (tables.strings > tables.symbols && (tables.strings - tables.symbols) / sizeof(Elf64_Sym) < kMaxSymbols)
    {
        range.end = static_cast<std::uint32_t>((tables.strings - tables.symbols) / sizeof(Elf64_Sym));
    }
    return true;
}

// The other table also lists symbols that other objects cannot see.
bool IsVisible(const Elf64_Sym& symbol) noexcept
{
    const unsigned binding = ELF64_ST_BIND(symbol.st_info);
    const unsigned visibility = ELF64_ST_VISIBILITY(symbol.st_other);
    return (binding == STB_GLOBAL || binding == STB_WEAK) && visibility != STV_HIDDEN && visibility != STV_INTERNAL;
}

bool IsAddress(const Elf64_Sym& symbol) noexcept
{
    return (symbol.st_shndx != SHN_UNDEF || symbol.st_value != 0) && symbol.st_shndx != SHN_ABS &&
           ELF64_ST_TYPE(symbol.st_info) != STT_TLS;
}

bool Covers(const Elf64_Sym& symbol, std::uintptr_t offset) noexcept
{
    const bool isPoint = symbol.st_shndx == SHN_UNDEF || symbol.st_size == 0;
    return offset >= symbol.st_value &&
           ((isPoint && offset == symbol.st_value) || offset < symbol.st_value + symbol.st_size);
}

// The best matches so far, while the symbols pass by.
void Look(const Elf64_Sym& symbol, const Tables& tables, std::uintptr_t loadAddress,
          std::span<SymbolSearch* const> searches) noexcept
{
    const std::uintptr_t start = loadAddress + symbol.st_value;
    for (SymbolSearch* const search : searches)
    {
        Symbol& best = search->symbol;
        if (Covers(symbol, search->address - loadAddress) && (best.name == 0 || start > best.start) && IsAddress(symbol) &&
            symbol.st_name < tables.stringsSize && (tables.gnuHash != 0 || IsVisible(symbol)))
        {
            best = {tables.strings + symbol.st_name, start};
        }
    }
}

} // namespace

void FindSymbols(MemoryReader& reader, const ElfObject& object, std::span<SymbolSearch* const> searches) noexcept
{
    const Tables tables = FindTables(reader, object);
    Range range;
    if (tables.symbols == 0 || tables.strings == 0 || !ReadRange(reader, tables, range))
    {
        return;
    }
    Elf64_Sym symbol;
    for (std::uintptr_t i = range.first; i < range.end && reader.Read(tables.symbols + i * sizeof(symbol), symbol); ++i)
    {
        Look(symbol, tables, object.module.loadAddress, searches);
    }
}

} // namespace Unwind
