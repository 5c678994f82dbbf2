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
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace
{

namespace fs = std::filesystem;

constexpr std::size_t kPage = 4096;
constexpr std::uintptr_t kAddressesOfAFunction = 8; // evenly, and its last, for which the whole program runs
constexpr std::uintptr_t kRowsAt = 12;              // in .eh_frame_hdr
constexpr int kMostReports = 20;

struct Totals
{
    unsigned long files = 0;
    unsigned long filesWithoutTable = 0;
    unsigned long entries = 0;
    unsigned long addresses = 0;
    unsigned long ends = 0;
    unsigned long unread = 0;
};

// Memory in which every word leads back into its middle: whatever a row reads, it finds a frame there.
class Stack
{
public:
    Stack()
        : m_words(static_cast<std::uint64_t*>(
              mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)))
    {
        std::fill_n(m_words, kSize / sizeof *m_words, Middle());
    }
    std::uint64_t Middle() const { return reinterpret_cast<std::uint64_t>(m_words) + kSize / 2; }

private:
    static constexpr std::size_t kSize = std::size_t{64} << 20;
    std::uint64_t* const m_words;
};

// An object in memory as the loader puts it there, but not relocated.
class Image
{
public:
    explicit Image(const fs::path& path)
    {
        const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat status = {};
        Elf64_Ehdr header;
        if (fstat(file, &status) == 0 && S_ISREG(status.st_mode) &&
            pread(file, &header, sizeof header, 0) == sizeof header && std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
            header.e_ident[EI_CLASS] == ELFCLASS64 && header.e_machine == EM_X86_64 &&
            (header.e_type == ET_DYN || header.e_type == ET_EXEC))
        {
            std::vector<Elf64_Phdr> segments(header.e_phnum);
            const std::size_t size = segments.size() * sizeof segments[0];
            if (pread(file, segments.data(), size, static_cast<off_t>(header.e_phoff)) == static_cast<ssize_t>(size))
            {
                Map(file, segments);
            }
        }
        close(file);
    }
    ~Image()
    {
        if (m_size != 0)
        {
            munmap(reinterpret_cast<void*>(m_base), m_size);
        }
    }
    Image(const Image&) = delete;
    Image& operator=(const Image&) = delete;

    bool IsObject() const { return m_size != 0; }
    std::uintptr_t UnwindHeader() const { return m_unwindHeader; }

private:
    void Map(int file, const std::vector<Elf64_Phdr>& segments)
    {
        std::uintptr_t start = ~std::uintptr_t{0};
        std::uintptr_t end = 0;
        for (const Elf64_Phdr& segment : segments)
        {
            if (segment.p_type == PT_LOAD)
            {
                start = std::min(start, segment.p_vaddr & ~(kPage - 1));
                end = std::max(end, segment.p_vaddr + segment.p_memsz);
            }
        }
        void* const memory =
            start < end ? mmap(nullptr, end - start, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) : MAP_FAILED;
        if (memory == MAP_FAILED)
        {
            return;
        }
        m_base = reinterpret_cast<std::uintptr_t>(memory);
        m_size = end - start;
        for (const Elf64_Phdr& segment : segments)
        {
            if (segment.p_type == PT_LOAD && segment.p_filesz != 0)
            {
                const std::size_t lead = segment.p_vaddr % kPage;
                mmap(reinterpret_cast<void*>(m_base - start + segment.p_vaddr - lead), segment.p_filesz + lead, PROT_READ,
                     MAP_PRIVATE | MAP_FIXED, file, static_cast<off_t>(segment.p_offset - lead));
            }
            if (segment.p_type == PT_GNU_EH_FRAME)
            {
                m_unwindHeader = m_base - start + segment.p_vaddr;
            }
        }
    }

    std::uintptr_t m_base = 0;
    std::size_t m_size = 0;
    std::uintptr_t m_unwindHeader = 0;
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

class Reader
{
public:
    void ReadObject(const fs::path& path)
    {
        const Image image(path);
        if (!image.IsObject())
        {
            return;
        }
        ++m_totals.files;
        Unwind::MemoryReader memory;
        const std::uint32_t count = CountRows(memory, image.UnwindHeader());
        m_totals.filesWithoutTable += count == 0 ? 1 : 0;
        for (std::uint32_t i = 0; i < count; ++i)
        {
            SearchRow row = {};
            memory.Read(image.UnwindHeader() + kRowsAt + i * sizeof row, row);
            ++m_totals.entries;
            const std::uintptr_t code = image.UnwindHeader() + static_cast<std::uintptr_t>(std::int64_t{row.code});
            Unwind::FrameEntry entry;
            if (!Unwind::FindFrameEntry(memory, image.UnwindHeader(), code, entry))
            {
                Report(path, row.code, "no entry");
                continue;
            }
            const std::uintptr_t stride = (entry.codeEnd - entry.codeStart) / kAddressesOfAFunction + 1;
            for (std::uintptr_t address = entry.codeStart; address < entry.codeEnd; address += stride)
            {
                ReadAt(path, memory, image.UnwindHeader(), address);
            }
            ReadAt(path, memory, image.UnwindHeader(), entry.codeEnd - 1);
        }
    }

    const Totals& GetTotals() const { return m_totals; }

private:
    void ReadAt(const fs::path& path, Unwind::MemoryReader& memory, std::uintptr_t header, std::uintptr_t address)
    {
        Unwind::UnwindResult result = UnwindWith(m_stack.Middle(), memory, header, address);
        if (result == Unwind::UnwindResult::NO_TABLES)
        {
            result = UnwindWith(1, memory, header, address); // some tables take a register for an index
        }
        ++m_totals.addresses;
        m_totals.ends += result == Unwind::UnwindResult::END_OF_STACK ? 1 : 0;
        if (result == Unwind::UnwindResult::NO_TABLES)
        {
            Report(path, static_cast<long>(address - header), "a row that cannot be read");
        }
    }

    Unwind::UnwindResult UnwindWith(std::uint64_t value, Unwind::MemoryReader& memory, std::uintptr_t header,
                                    std::uintptr_t address) const
    {
        Unwind::FrameRegisters registers;
        for (unsigned number = 0; number < Unwind::FrameRegisters::kCount; ++number)
        {
            registers.Set(number, value);
        }
        registers.Set(Unwind::FrameRegisters::kStackPointer, m_stack.Middle());
        return Unwind::UnwindFrame(memory, header, address, registers);
    }

    void Report(const fs::path& path, long code, const char* what)
    {
        if (m_totals.unread++ < kMostReports)
        {
            std::printf("%s: %s at .eh_frame_hdr%+ld\n", path.c_str(), what, code);
        }
    }

    const Stack m_stack;
    Totals m_totals;
};

} // namespace

int main(int count, char** arguments)
{
    std::vector<fs::path> folders(arguments + 1, arguments + count);
    if (folders.empty())
    {
        folders.push_back("/usr/lib");
    }
    Reader reader;
    for (const fs::path& folder : folders)
    {
        constexpr auto kOptions = fs::directory_options::skip_permission_denied;
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder, kOptions))
        {
            // Files of debug information keep the headers of what was taken out of them.
            if (entry.is_regular_file() && !entry.is_symlink() && entry.path().extension() != ".debug")
            {
                reader.ReadObject(entry.path());
            }
        }
    }
    const Totals& totals = reader.GetTotals();
    std::printf(
        "%lu objects (%lu without a search table), %lu entries read at %lu addresses; ends of stacks: %lu; unread: %lu\n",
        totals.files, totals.filesWithoutTable, totals.entries, totals.addresses, totals.ends, totals.unread);
    return totals.unread == 0 && totals.entries != 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
