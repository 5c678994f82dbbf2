// Reads every unwind table entry of all programs and libraries in the folders given (/usr/lib without any) with the
// library's own code, as a walk through each of their functions would, and reports what cannot be read.
#include "ErrorHandlerDll/unwind/CallFrameInfo.h"
#include "ErrorHandlerDll/unwind/FrameTable.h"
#include "ErrorHandlerDll/unwind/MemoryReader.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <elf.h>
#include <filesystem>
#include <fstream>
#include <vector>

namespace
{

namespace fs = std::filesystem;

constexpr std::uintptr_t kAddressesOfAFunction = 8; // evenly, and its last, for which the whole program runs
constexpr std::uintptr_t kRowsAt = 12;              // in .eh_frame_hdr
constexpr unsigned long kMaxReports = 20;

unsigned long gFiles, gFilesWithoutTable, gEntries, gAddresses, gEnds, gUnread;

// Memory in which every word leads back into its middle: whatever a row reads, it finds a frame there.
std::uint64_t MakeStack()
{
    static std::vector<std::uint64_t> words(std::size_t{8} << 20);
    const auto middle = reinterpret_cast<std::uint64_t>(words.data() + words.size() / 2);
    std::fill(words.begin(), words.end(), middle);
    return middle;
}

const std::uint64_t kStack = MakeStack();

// An object in memory as the loader puts it there, but not relocated.
struct Image
{
    std::vector<char> bytes;
    std::uintptr_t unwindHeader = 0; // its address; 0 without

    explicit Image(const fs::path& path)
    {
        std::ifstream file(path, std::ios::binary);
        Elf64_Ehdr header = {};
        file.read(reinterpret_cast<char*>(&header), sizeof header);
        if (!file || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS64 ||
            header.e_machine != EM_X86_64 || (header.e_type != ET_DYN && header.e_type != ET_EXEC))
        {
            return;
        }
        std::vector<Elf64_Phdr> segments(header.e_phnum);
        ReadAt(file, header.e_phoff, segments.data(), segments.size() * sizeof segments[0]);
        const auto isLoaded = [](const Elf64_Phdr& segment)
        {
            return segment.p_type == PT_LOAD;
        };
        const auto first = std::find_if(segments.begin(), segments.end(), isLoaded); // they are in order
        const std::uint64_t start = first == segments.end() ? 0 : first->p_vaddr;
        for (const Elf64_Phdr& segment : segments)
        {
            if (isLoaded(segment))
            {
                bytes.resize(segment.p_vaddr + segment.p_filesz - start);
                ReadAt(file, segment.p_offset, bytes.data() + (segment.p_vaddr - start), segment.p_filesz);
            }
        }
        for (const Elf64_Phdr& segment : segments)
        {
            if (segment.p_type == PT_GNU_EH_FRAME)
            {
                unwindHeader = reinterpret_cast<std::uintptr_t>(bytes.data()) + (segment.p_vaddr - start);
            }
        }
    }

    static void ReadAt(std::ifstream& file, std::uint64_t offset, void* out, std::size_t size)
    {
        file.seekg(static_cast<std::streamoff>(offset));
        file.read(static_cast<char*>(out), static_cast<std::streamsize>(size));
    }
};

struct SearchRow
{
    std::int32_t code; // from the header on, as the entry
    std::int32_t entry;
};

// What all linkers write: a version, three encodings, the address of the tables, a count; then the rows. 0 without.
std::uint32_t CountRows(Unwind::MemoryReader& memory, std::uintptr_t header)
{
    constexpr unsigned char kKnown[] = {1, 0x1b, 0x03, 0x3b};
    struct
    {
        unsigned char encodings[sizeof kKnown];
        std::int32_t tables;
        std::uint32_t count;
    } start;
    static_assert(sizeof start == kRowsAt);
    const bool isKnown = memory.Read(header, start) && std::memcmp(start.encodings, kKnown, sizeof kKnown) == 0;
    return isKnown ? start.count : 0;
}

void Report(const fs::path& path, long code, const char* what)
{
    if (gUnread++ < kMaxReports)
    {
        std::printf("%s: %s at .eh_frame_hdr%+ld\n", path.c_str(), what, code);
    }
}

Unwind::UnwindResult UnwindWith(std::uint64_t value, Unwind::MemoryReader& memory, std::uintptr_t header,
                                std::uintptr_t address)
{
    Unwind::FrameRegisters registers;
    for (unsigned number = 0; number < Unwind::FrameRegisters::kCount; ++number)
    {
        registers.Set(number, value);
    }
    registers.Set(Unwind::FrameRegisters::kStackPointer, kStack);
    return Unwind::UnwindFrame(memory, header, address, registers);
}

void ReadRow(const fs::path& path, Unwind::MemoryReader& memory, std::uintptr_t header, std::uintptr_t address)
{
    Unwind::UnwindResult result = UnwindWith(kStack, memory, header, address);
    if (result == Unwind::UnwindResult::NO_TABLES)
    {
        result = UnwindWith(1, memory, header, address); // some tables take a register for an index
    }
    ++gAddresses;
    gEnds += result == Unwind::UnwindResult::END_OF_STACK ? 1 : 0;
    if (result == Unwind::UnwindResult::NO_TABLES)
    {
        Report(path, static_cast<long>(address - header), "a row that cannot be read");
    }
}

void ReadObject(const fs::path& path)
{
    const Image image(path);
    if (image.bytes.empty())
    {
        return;
    }
    ++gFiles;
    Unwind::MemoryReader memory;
    const std::uint32_t count = CountRows(memory, image.unwindHeader);
    gFilesWithoutTable += count == 0 ? 1 : 0;
    gEntries += count;
    for (std::uint32_t i = 0; i < count; ++i)
    {
        SearchRow row = {};
        memory.Read(image.unwindHeader + kRowsAt + i * sizeof row, row);
        const std::uintptr_t code = image.unwindHeader + static_cast<std::uintptr_t>(std::int64_t{row.code});
        Unwind::FrameEntry entry;
        if (!Unwind::FindFrameEntry(memory, image.unwindHeader, code, entry))
        {
            Report(path, row.code, "no entry");
            continue;
        }
        const std::uintptr_t stride = (entry.codeEnd - entry.codeStart) / kAddressesOfAFunction + 1;
        for (std::uintptr_t address = entry.codeStart; address < entry.codeEnd; address += stride)
        {
            ReadRow(path, memory, image.unwindHeader, address);
        }
        ReadRow(path, memory, image.unwindHeader, entry.codeEnd - 1);
    }
}

} // namespace

int main(int count, char** arguments)
{
    std::vector<fs::path> folders(arguments + 1, arguments + count);
    if (folders.empty())
    {
        folders.push_back("/usr/lib");
    }
    for (const fs::path& folder : folders)
    {
        constexpr auto kOptions = fs::directory_options::skip_permission_denied;
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder, kOptions))
        {
            // Files of debug information keep the headers of what was taken out of them.
            if (entry.is_regular_file() && !entry.is_symlink() && entry.path().extension() != ".debug")
            {
                ReadObject(entry.path());
            }
        }
    }
    std::printf(
        "%lu objects (%lu without a search table), %lu entries read at %lu addresses; ends of stacks: %lu; unread: %lu\n",
        gFiles, gFilesWithoutTable, gEntries, gAddresses, gEnds, gUnread);
    return gUnread == 0 && gEntries != 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
