#include "ErrorHandlerDll/logging/FileDependentLoggerStrategy.h"

#include "ErrorHandlerDll/logging/LogFileName.h"
#include "ZelvoWinAPI/ZelvoWinAPI.h"

void FileDependentLoggerStrategy::SearchCurrentFiles(const QV::BaseString<char>& searchMask)
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

QV::BaseString<char> FileDependentLoggerStrategy::GetFileSearchMask(const QV::BaseString<char>& fileName,
                                                                    const QV::BaseString<char>& wildcard)
{
    const LogFileName name = LogFileName::Split(fileName);
    return QV::BaseString<char>::Join(name.m_stem, wildcard, name.m_extension);
}
