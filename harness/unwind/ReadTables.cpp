// Reads every unwind table entry of all programs and libraries in a folder (/usr/lib when none is given) with the library's
// own code, as a walk through each of their functions would, and reports what cannot be read.
#include "ErrorHandlerDll/unwind/CallFrameInfo.h"
#include "ErrorHandlerDll/unwind/FrameTable.h"
#include "tests/support/TemporaryFolder.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <elf.h>
#include <span>
#include <vector>

namespace
{

namespace fs = std::filesystem;
using Unwind::FrameRegisters;

constexpr std::uintptr_t kAddressesOfAFunction = 8; // evenly, and its last, for which the whole program runs

unsigned long gFiles, gFilesWithoutTable, gEntries, gAddresses, gUnread;

// Memory in which every word leads back into its middle: whatever a row reads, it finds a frame there.
std::vector<std::uint64_t> gStack(std::size_t{8} << 20);
const auto kMiddle = reinterpret_cast<std::uint64_t>(&gStack[gStack.size() / 2]);

// The start of .eh_frame_hdr, as all linkers write it. Addresses in the rows behind it are relative to it.
struct SearchTable
{
    char m_form[4]; // a version, three encodings
    std::int32_t m_tables;
    std::uint32_t m_count;
};
struct SearchRow
{
    std::int32_t m_code;
    std::int32_t m_entry;
};

bool IsRead(Unwind::MemoryReader& memory, std::uintptr_t header, std::uintptr_t address, std::uint64_t value)
{
    FrameRegisters registers;
    for (unsigned number = 0; number < FrameRegisters::kCount; ++number)
    {
        registers.Set(number, number == FrameRegisters::kStackPointer ? kMiddle : value);
    }
    return UnwindFrame(memory, header, address, registers) != Unwind::UnwindResult::NO_TABLES;
}

void ReadTable(const fs::path& path, const SearchTable& table)
{
    const auto header = reinterpret_cast<std::uintptr_t>(&table);
    Unwind::MemoryReader memory;
    for (const SearchRow& row : std::span(reinterpret_cast<const SearchRow*>(&table + 1), table.m_count))
    {
        Unwind::FrameEntry entry;
        const auto code = header + static_cast<std::uintptr_t>(std::int64_t{row.m_code});
        unsigned long unread = Unwind::FindFrameEntry(memory, header, code, entry) ? 0 : 1;
        const std::uintptr_t stride = (entry.codeEnd - entry.codeStart) / kAddressesOfAFunction + 1;
        for (std::uintptr_t address = entry.codeStart; address < entry.codeEnd;)
        {
            // Some tables take a register for an index.
            unread += IsRead(memory, header, address, kMiddle) || IsRead(memory, header, address, 1) ? 0 : 1;
            ++gAddresses;
            address += std::clamp<std::uintptr_t>(entry.codeEnd - 1 - address, 1, stride);
        }
        if (unread > 0)
        {
            std::printf("%s: cannot be read at .eh_frame_hdr%+d\n", path.c_str(), row.m_code);
        }
        gUnread += unread;
    }
    gEntries += table.m_count;
}

// Reads an object, in memory as the loader puts it there, but not relocated.
void ReadObject(const fs::path& path)
{
    Elf64_Ehdr header = {};
    std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(&header), sizeof header);
    if (std::memcmp(header.e_ident, "\177ELF\2", SELFMAG + 1) != 0 || header.e_machine != EM_X86_64 ||
        (header.e_type != ET_DYN && header.e_type != ET_EXEC))
    {
        return;
    }
    const std::string file = ReadFile(path);
    std::string image;
    std::uint64_t start = 0;
    std::uint64_t tableAt = 0;
    for (const auto& segment : std::span(reinterpret_cast<const Elf64_Phdr*>(file.data() + header.e_phoff), header.e_phnum))
    {
        if (segment.p_type == PT_LOAD) // these are in order
        {
            start = image.empty() ? segment.p_vaddr : start;
            image.resize(segment.p_vaddr - start);
            image.append(file, segment.p_offset, segment.p_filesz);
        }
        tableAt = segment.p_type == PT_GNU_EH_FRAME ? segment.p_vaddr : tableAt;
    }
    ++gFiles;
    const auto* const table = reinterpret_cast<const SearchTable*>(image.data() + (tableAt - start));
    if (tableAt > 0 && std::memcmp(table->m_form, "\x01\x1b\x03\x3b", sizeof table->m_form) == 0 && table->m_count > 0)
    {
        ReadTable(path, *table);
    }
    else
    {
        ++gFilesWithoutTable;
    }
}

} // namespace

int main(int count, char** arguments)
{
    std::fill(gStack.begin(), gStack.end(), kMiddle);
    constexpr auto kOptions = fs::directory_options::skip_permission_denied;
    for (const auto& entry : fs::recursive_directory_iterator(count > 1 ? arguments[1] : "/usr/lib", kOptions))
    {
        // Files of debug information keep the headers of what was taken out of them.
        if (entry.is_regular_file() && !entry.is_symlink() && entry.path().extension() != ".debug")
        {
            ReadObject(entry.path());
        }
    }
    std::printf("%lu objects (%lu without a search table), %lu entries read at %lu addresses; unread: %lu\n", gFiles,
                gFilesWithoutTable, gEntries, gAddresses, gUnread);
    return gUnread == 0 && gEntries != 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
