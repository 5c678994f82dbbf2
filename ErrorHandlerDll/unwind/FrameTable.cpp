#include "ErrorHandlerDll/unwind/FrameTable.h"

#include "ErrorHandlerDll/unwind/DwarfCursor.h"
#include "ErrorHandlerDll/unwind/FrameRegisters.h"

namespace Unwind
{
namespace
{

constexpr std::uint8_t kHeaderVersion = 1;
constexpr std::uint8_t kTablesEncoding = PointerEncoding::kPositionRelative | PointerEncoding::kSigned4;
constexpr std::uint8_t kEntryEncoding = PointerEncoding::kDataRelative | PointerEncoding::kSigned4;
constexpr std::uint32_t kLongLength = 0xffffffff;
constexpr std::uint64_t kMaxEntrySize = 1u << 24;
constexpr unsigned kMaxAugmentation = 8; // "zPLRSB" and the like

// The head of .eh_frame_hdr as all linkers write it; the search entries follow.
struct SearchHeader
{
    std::uint8_t version;
    std::uint8_t tablesEncoding;
    std::uint8_t countEncoding;
    std::uint8_t entryEncoding;
    std::int32_t tables;
    std::uint32_t count;
};

struct SearchEntry
{
    std::int32_t codeStart; // both count from the header
    std::int32_t entry;
};

// The last entry that starts at or below the address.
bool Search(MemoryReader& reader, std::uintptr_t header, std::uintptr_t address, std::uintptr_t& found) noexcept
{
    SearchHeader head;
    if (!reader.Read(header, head) || head.version != kHeaderVersion || head.tablesEncoding != kTablesEncoding ||
        head.countEncoding != PointerEncoding::kUnsigned4 || head.entryEncoding != kEntryEncoding)
    {
        return false;
    }
    const std::uintptr_t entries = header + sizeof(head);
    const auto key = static_cast<std::int64_t>(address - header);
    std::uint64_t low = 0;
    std::uint64_t high = head.count;
    found = 0;
    while (low < high)
    {
        const std::uint64_t middle = low + (high - low) / 2;
        SearchEntry entry;
        if (!reader.Read(entries + middle * sizeof(entry), entry))
        {
            return false;
        }
        if (entry.codeStart <= key)
        {
            found = header + static_cast<std::uintptr_t>(std::int64_t{entry.entry});
            low = middle + 1;
        }
        else
        {
            high = middle;
        }
    }
    return found != 0;
}

// Reads the length that begins each record; leaves `start` behind it and `end` at the end of the record.
bool ReadLength(MemoryReader& reader, std::uintptr_t& start, std::uintptr_t& end) noexcept
{
    DwarfCursor cursor(reader, start, ~std::uintptr_t{0});
    std::uint64_t length = cursor.Take<std::uint32_t>();
    if (length == kLongLength)
    {
        length = cursor.Take<std::uint64_t>();
    }
    start = cursor.Position();
    end = start + length;
    return !cursor.HasFailed() && length != 0 && length < kMaxEntrySize;
}

// The letters say what the augmentation data holds, in their order.
bool ReadAugmentation(DwarfCursor& cursor, const char* letters, FrameEntry& entry) noexcept
{
    for (const char* letter = letters; *letter != '\0'; ++letter)
    {
        switch (*letter)
        {
        case 'L':
            cursor.Take<std::uint8_t>();
            break;
        case 'R':
            entry.pointerEncoding = cursor.Take<std::uint8_t>();
            break;
        case 'P':
            // Only its size matters; without the application bits it is neither moved nor followed.
            cursor.TakeEncoded(cursor.Take<std::uint8_t>() & PointerEncoding::kFormatMask, 0);
            break;
        case 'S':
            entry.isSignalFrame = true;
            break;
        default:
            return false;
        }
    }
    return true;
}

bool TakeLetters(DwarfCursor& cursor, char* letters) noexcept
{
    for (unsigned i = 0; i < kMaxAugmentation; ++i)
    {
        letters[i] = static_cast<char>(cursor.Take<std::uint8_t>());
        if (letters[i] == '\0')
        {
            return !cursor.HasFailed();
        }
    }
    return false;
}

bool ReadCommonPart(MemoryReader& reader, std::uintptr_t start, FrameEntry& entry, bool& hasAugmentationData) noexcept
{
    if (!ReadLength(reader, start, entry.commonEnd))
    {
        return false;
    }
    DwarfCursor cursor(reader, start, entry.commonEnd);
    const auto id = cursor.Take<std::uint32_t>();
    const auto version = cursor.Take<std::uint8_t>();
    char letters[kMaxAugmentation];
    if (id != 0 || (version != 1 && version != 3) || !TakeLetters(cursor, letters))
    {
        return false;
    }
    entry.codeAlignment = cursor.TakeUnsigned();
    entry.dataAlignment = cursor.TakeSigned();
    const std::uint64_t returnRegister = version == 1 ? cursor.Take<std::uint8_t>() : cursor.TakeUnsigned();
    if (returnRegister >= FrameRegisters::kCount)
    {
        return false;
    }
    entry.returnRegister = static_cast<unsigned>(returnRegister);

    hasAugmentationData = letters[0] == 'z';
    if (hasAugmentationData)
    {
        const std::uint64_t size = cursor.TakeUnsigned();
        const std::uintptr_t data = cursor.Position();
        if (!ReadAugmentation(cursor, letters + 1, entry))
        {
            return false;
        }
        cursor.MoveTo(data);
        cursor.Skip(size);
    }
    entry.commonInstructions = cursor.Position();
    return !cursor.HasFailed() && (hasAugmentationData || letters[0] == '\0');
}

bool ReadEntry(MemoryReader& reader, std::uintptr_t start, std::uintptr_t header, FrameEntry& entry) noexcept
{
    if (!ReadLength(reader, start, entry.end))
    {
        return false;
    }
    DwarfCursor cursor(reader, start, entry.end);
    const auto distance = cursor.Take<std::uint32_t>(); // back to the common part; 0 marks a common part itself
    bool hasAugmentationData = false;
    if (distance == 0 || !ReadCommonPart(reader, start - distance, entry, hasAugmentationData))
    {
        return false;
    }
    entry.codeStart = cursor.TakeEncoded(entry.pointerEncoding, header);
    entry.codeEnd = entry.codeStart + cursor.TakeEncoded(entry.pointerEncoding & PointerEncoding::kFormatMask, 0);
    if (hasAugmentationData)
    {
        cursor.Skip(cursor.TakeUnsigned());
    }
    entry.instructions = cursor.Position();
    return !cursor.HasFailed();
}

} // namespace

bool FindFrameEntry(MemoryReader& reader, std::uintptr_t unwindHeader, std::uintptr_t address, FrameEntry& entry) noexcept
{
    std::uintptr_t record;
    return Search(reader, unwindHeader, address, record) && ReadEntry(reader, record, unwindHeader, entry) &&
           address >= entry.codeStart && address < entry.codeEnd;
}

} // namespace Unwind
