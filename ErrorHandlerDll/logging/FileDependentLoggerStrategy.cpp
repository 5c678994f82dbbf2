#include "ErrorHandlerDll/logging/FileDependentLoggerStrategy.h"

#include "ErrorHandlerDll/logging/LogFileName.h"
#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <memory>
#include <string_view>

namespace
{

struct SearchCloser
{
    void operator()(void* handle) const { ZelvoWinAPI::FindClose(handle); }
};

} // namespace

void FileDependentLoggerStrategy::SearchCurrentFiles(const QV::BaseString<char>& searchMask)
{
    ZelvoWinAPI::_WIN32_FIND_DATA found;
    const std::unique_ptr<void, SearchCloser> search(ZelvoWinAPI::FindFirstFile(searchMask.GetData(), &found));
    if (search == nullptr)
    {
        return;
    }
    do
    {
        const std::string_view name = found.cFileName;
        if (name != "." && name != "..")
        {
            OnFileFound(QV::BaseString<char>(name));
        }
    } while (ZelvoWinAPI::FindNextFile(search.get(), &found) != 0);
}

QV::BaseString<char> FileDependentLoggerStrategy::GetFileSearchMask(const QV::BaseString<char>& fileName,
                                                                    const QV::BaseString<char>& wildcard)
{
    const LogFileName name = LogFileName::Split(fileName);
    return QV::BaseString<char>::Join(name.m_stem, wildcard, name.m_extension);
}
