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

unsigned long gFiles, gFilesWithoutTable, gEntries, gUnread;

// Memory in which every word leads back into its middle: whatever a row reads, it finds a frame there.
std::vector<std::uint64_t> gStack(std::size_t{8} << 20);
const auto kMiddle = reinterpret_cast<std::uint64_t>(&gStack[gStack.size() / 2]);

// What all linkers write in .eh_frame_hdr: a version and three encodings; the address of the tables; a count; then rows of
// two addresses, of code and its entry. Addresses are relative to the header.
constexpr std::int32_t kForm = 0x3b031b01;
constexpr std::uint32_t kCount = 2;
constexpr std::uint32_t kRows = 3;

bool IsRead(Unwind::MemoryReader& memory, std::uintptr_t header, std::uintptr_t address, std::uint64_t value)
{
    FrameRegisters registers;
    for (unsigned number = 0; number < FrameRegisters::kCount; ++number)
    {
        registers.Set(number, number == FrameRegisters::kStackPointer ? kMiddle : value);
    }
    return UnwindFrame(memory, header, address, registers) != Unwind::UnwindResult::NO_TABLES;
}

void ReadTable(const fs::path& path, const std::int32_t* table)
{
    const auto header = reinterpret_cast<std::uintptr_t>(table);
    Unwind::MemoryReader memory;
    const std::span rows(table + kRows, 2 * static_cast<std::uint32_t>(table[kCount]));
    for (std::size_t i = 0; i < rows.size(); i += 2)
    {
        Unwind::FrameEntry entry;
        const auto code = header + static_cast<std::uintptr_t>(std::int64_t{rows[i]});
        unsigned long unread = Unwind::FindFrameEntry(memory, header, code, entry) ? 0 : 1;
        const std::uintptr_t stride = (entry.codeEnd - entry.codeStart) / kAddressesOfAFunction + 1;
        for (std::uintptr_t address = entry.codeStart; address < entry.codeEnd;)
        {
            // Some tables take a register for an index.
            unread += IsRead(memory, header, address, kMiddle) || IsRead(memory, header, address, 1) ? 0 : 1;
            address += std::clamp<std::uintptr_t>(entry.codeEnd - 1 - address, 1, stride);
        }
        if (unread > 0)
        {
            std::printf("%s: cannot be read at .eh_frame_hdr%+d\n", path.c_str(), rows[i]);
        }
        gUnread += unread;
    }
    gEntries += rows.size() / 2;
}

// Reads an object, in memory as the loader puts it there, but not relocated.
void ReadObject(const fs::path& path)
{
    Elf64_Ehdr header = {};
    std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(&header), sizeof header);
    if (std::memcmp(header.e_ident, "\177ELF\2", SELFMAG + 1) != 0 || header.e_machine != EM_X86_64 || header.e_phnum == 0)
    {
        return;
    }
    const std::string file = ReadFile(path);
    std::string image;
    std::uint64_t tableAt = 0;
    for (const auto& segment : std::span(reinterpret_cast<const Elf64_Phdr*>(file.data() + header.e_phoff), header.e_phnum))
    {
        if (segment.p_type == PT_LOAD) // these are in order
        {
            image.resize(segment.p_vaddr);
            image.append(file, segment.p_offset, segment.p_filesz);
        }
        tableAt = segment.p_type == PT_GNU_EH_FRAME ? segment.p_vaddr : tableAt;
    }
    ++gFiles;
    const auto* const table = reinterpret_cast<const std::int32_t*>(image.data() + tableAt);
    if (tableAt > 0 && table[0] == kForm && table[kCount] > 0)
    {
        ReadTable(path, table);
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
    std::printf("%lu objects (%lu without a search table), %lu entries; unread: %lu\n", gFiles, gFilesWithoutTable, gEntries,
                gUnread);
    return gUnread == 0 && gEntries != 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
