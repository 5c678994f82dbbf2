#include "ErrorHandlerDll/logging/FileDependentLoggerStrategy.h"

#include "ZelvoWinAPI/ZelvoWinAPI.h"

void FileDependentLoggerStrategy::SearchCurrentFiles(const LogPath& searchMask)
{
    ZelvoWinAPI::_WIN32_FIND_DATA found;
    void* const search = ZelvoWinAPI::FindFirstFile(searchMask.GetData(), &found);
    if (search == nullptr)
    {
        return;
    }
    do
    {
        const std::string_view name = found.cFileName;
        if (name != "." && name != "..")
        {
            OnFileFound(name);
        }
    } while (ZelvoWinAPI::FindNextFile(search, &found) != 0);
    ZelvoWinAPI::FindClose(search);
}

LogPath FileDependentLoggerStrategy::GetFileSearchMask(std::string_view fileName, std::string_view wildcard)
{
    const LogFileName name = LogFileName::Split(fileName);
    return {name.m_stem, wildcard, name.m_extension};
}
