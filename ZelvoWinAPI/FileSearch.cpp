// File search by a pattern over one directory, straight on the kernel's directory entries: opendir takes the heap.
#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace ZelvoWinAPI
{

namespace
{

// Whether `name` matches `pattern`. On a mismatch the last `*` is made to match one character more, which is enough: one
// before it never needs to be tried again.
bool Matches(const char* pattern, const char* name) noexcept
{
    const char* afterStar = nullptr;
    const char* starName = nullptr;
    while (*name != '\0')
    {
        if (*pattern == '*')
        {
            afterStar = ++pattern;
            starName = name;
        }
        else if (*pattern == *name)
        {
            ++pattern;
            ++name;
        }
        else if (afterStar != nullptr)
        {
            pattern = afterStar;
            name = ++starName;
        }
        else
        {
            return false;
        }
    }
    while (*pattern == '*')
    {
        ++pattern;
    }
    return *pattern == '\0';
}

// Opens the folder of `pattern`, whose name part begins at `name`. `scratch` has room for kEntriesSize bytes.
int OpenFolder(const char* pattern, const char* name, char* scratch) noexcept
{
    if (name == pattern)
    {
        return OpenFile(".", O_RDONLY | O_DIRECTORY);
    }
    const auto length = static_cast<std::size_t>(name - pattern); // with the slash: "/" stays the root
    if (length >= _WIN32_FIND_DATA::kEntriesSize)
    {
        return -1;
    }
    std::memcpy(scratch, pattern, length);
    scratch[length] = '\0';
    return OpenFile(scratch, O_RDONLY | O_DIRECTORY);
}

bool ReadEntries(_WIN32_FIND_DATA* data) noexcept
{
    data->m_entriesAt = 0;
    data->m_entriesUsed =
        static_cast<int>(syscall(SYS_getdents64, data->m_directory, data->m_entries, sizeof data->m_entries));
    return data->m_entriesUsed > 0;
}

} // namespace

void* FindFirstFile(const char* pattern, _WIN32_FIND_DATA* data) noexcept
{
    const char* const slash = std::strrchr(pattern, '/');
    const char* const name = slash == nullptr ? pattern : slash + 1;
    const std::size_t nameSize = std::strlen(name) + 1;
    if (nameSize > _WIN32_FIND_DATA::kPatternSize)
    {
        return nullptr;
    }
    data->m_directory = OpenFolder(pattern, name, data->m_entries);
    if (data->m_directory < 0)
    {
        return nullptr;
    }
    std::memset(data, 0, offsetof(_WIN32_FIND_DATA, m_directory));
    std::memcpy(data->m_pattern, name, nameSize);
    data->m_entriesAt = 0;
    data->m_entriesUsed = 0;
    if (FindNextFile(data, data) == 0)
    {
        FindClose(data);
        return nullptr;
    }
    return data;
}

int FindNextFile(void*, _WIN32_FIND_DATA* data) noexcept
{
    while (data->m_entriesAt < data->m_entriesUsed || ReadEntries(data))
    {
        const auto* entry = reinterpret_cast<const dirent64*>(data->m_entries + data->m_entriesAt);
        data->m_entriesAt += entry->d_reclen;
        if (Matches(data->m_pattern, entry->d_name))
        {
            data->dwFileAttributes = entry->d_type == DT_DIR ? FILE_ATTRIBUTE_DIRECTORY : 0;
            std::memcpy(data->cFileName, entry->d_name, strnlen(entry->d_name, MAX_PATH - 1) + 1);
            return 1;
        }
    }
    return 0;
}

void FindClose(void* handle) noexcept
{
    CloseFile(static_cast<_WIN32_FIND_DATA*>(handle)->m_directory);
}

bool IsDirectory(const char* path) noexcept
{
    struct stat status = {};
    return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

} // namespace ZelvoWinAPI
