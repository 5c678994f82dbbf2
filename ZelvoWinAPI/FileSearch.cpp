// File search by a pattern over one directory.
#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <cstring>
#include <dirent.h>
#include <memory>
#include <sys/stat.h>

namespace ZelvoWinAPI
{

namespace
{

struct Search
{
    DIR* m_directory = nullptr;
    std::unique_ptr<char[]> m_path; // the pattern, cut in two at its last slash
    const char* m_namePattern = nullptr;
};

// Whether `name` matches `pattern`. On a mismatch the last `*` is made to match one character more, which is enough: an
// earlier
// `*` never needs to be tried again.
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

// Cuts `path` at its last slash and opens the directory part.
DIR* OpenDirectoryOf(char* path, const char*& namePattern) noexcept
{
    char* slash = std::strrchr(path, '/');
    if (slash == nullptr)
    {
        namePattern = path;
        return opendir(".");
    }
    namePattern = slash + 1;
    if (slash == path)
    {
        return opendir("/");
    }
    *slash = '\0';
    return opendir(path);
}

void Fill(_WIN32_FIND_DATA* data, const dirent* entry) noexcept
{
    std::memset(data, 0, sizeof *data);
    data->dwFileAttributes = entry->d_type == DT_DIR ? FILE_ATTRIBUTE_DIRECTORY : 0;
    const std::size_t length = strnlen(entry->d_name, MAX_PATH - 1);
    std::memcpy(data->cFileName, entry->d_name, length);
}

} // namespace

void* FindFirstFile(const char* pattern, _WIN32_FIND_DATA* data)
{
    const std::size_t size = std::strlen(pattern) + 1;
    auto search = std::make_unique<Search>();
    search->m_path = std::make_unique<char[]>(size);
    std::memcpy(search->m_path.get(), pattern, size);
    search->m_directory = OpenDirectoryOf(search->m_path.get(), search->m_namePattern);
    if (search->m_directory == nullptr)
    {
        return nullptr;
    }
    if (FindNextFile(search.get(), data) == 0)
    {
        closedir(search->m_directory);
        return nullptr;
    }
    return search.release();
}

int FindNextFile(void* handle, _WIN32_FIND_DATA* data) noexcept
{
    const auto* search = static_cast<Search*>(handle);
    while (const dirent* entry = readdir(search->m_directory))
    {
        if (Matches(search->m_namePattern, entry->d_name))
        {
            Fill(data, entry);
            return 1;
        }
    }
    return 0;
}

void FindClose(void* handle) noexcept
{
    const std::unique_ptr<Search> search(static_cast<Search*>(handle));
    closedir(search->m_directory);
}

bool IsDirectory(const char* path) noexcept
{
    struct stat status = {};
    return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

} // namespace ZelvoWinAPI
