#include "ErrorHandlerDll/logging/FileSizeLoggerStrategy.h"

#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <climits>
#include <string_view>

namespace
{

constexpr std::size_t kNumberTextSize = 34; // what itoa asks for

// The part of a file name in which its number stands: between the last two dots, or up to the only one, or after it when the
// name starts with it.
std::string_view NumberPart(std::string_view name)
{
    const std::size_t lastDot = name.rfind('.');
    if (lastDot == std::string_view::npos || lastDot == 0)
    {
        return name.substr(lastDot + 1); // npos + 1 is 0
    }
    const std::size_t start = name.rfind('.', lastDot - 1) + 1;
    return name.substr(start, lastDot - start);
}

} // namespace

bool FileSizeLoggerStrategy::PrepareOutputSource()
{
    if (!m_output->IsOpen()) [[unlikely]]
    {
        OpenHighestFile(); // when that fails the line is lost, and the next one starts again with the search
    }
    if (m_output->GetSize() + static_cast<std::int64_t>(m_output->GetLineLength()) >= m_maxFileSize && m_output->IsOpen())
    {
        MoveToNextFile();
    }
    return true;
}

void FileSizeLoggerStrategy::OnFileFound(std::string_view fileName)
{
    const int fileID = GetFileIDFromFileName(fileName);
    if (fileID > m_currentFileID && fileID < INT_MAX) // from INT_MAX no file could ever be moved on
    {
        m_currentFileID = fileID;
    }
}

int FileSizeLoggerStrategy::GetFileIDFromFileName(std::string_view fileName)
{
    if (fileName.find('\\') != std::string_view::npos)
    {
        fileName.remove_prefix(fileName.find_last_of("\\/") + 1);
    }
    return ParseFileNumber(NumberPart(fileName));
}

LogPath FileSizeLoggerStrategy::BuildLogFileName(std::string_view fileName, int fileID)
{
    const LogFileName name = LogFileName::Split(fileName);
    char number[kNumberTextSize] = {};
    ZelvoWinAPI::itoa(fileID, number, 10);

    const bool hasNumber = !name.m_middle.empty() && ParseFileNumber(name.m_middle.substr(1)) != kNoNumber;
    return {name.m_stem, hasNumber ? "" : name.m_middle, ".", number, name.m_extension};
}

void FileSizeLoggerStrategy::OpenHighestFile()
{
    m_currentFileID = 1;
    SearchCurrentFiles(GetFileSearchMask(m_output->GetName(), ".*"));
    OpenCurrentFile();
}

void FileSizeLoggerStrategy::MoveToNextFile()
{
    if (m_currentFileID == INT_MAX)
    {
        return; // no number is left: the last file grows on
    }
    if (!m_output->Flush() && !m_output->Flush()) // one failing call is no reason to stay
    {
        return; // a next file would not get more room on the disk, and each try would leave an empty one
    }
    ++m_currentFileID;
    m_output->Close();
    OpenCurrentFile();
}

// Opens the file of the current number, or of the next one whose name no directory bears: that would block the log for ever.
void FileSizeLoggerStrategy::OpenCurrentFile()
{
    for (;; ++m_currentFileID)
    {
        m_output->SetName(BuildLogFileName(m_output->GetName(), m_currentFileID));
        m_output->Open(false);
        if (m_output->IsOpen() || m_currentFileID == INT_MAX || !ZelvoWinAPI::IsDirectory(m_output->GetName().GetData()))
        {
            return;
        }
    }
}
