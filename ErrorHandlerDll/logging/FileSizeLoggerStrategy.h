// Rotate: numbered files. Before a line would bring the current file to the size limit, the log moves on to the next number.
// Starts with the highest number on disk. Files are never deleted or moved.
#ifndef ERRORHANDLERDLL_LOGGING_FILESIZELOGGERSTRATEGY_H
#define ERRORHANDLERDLL_LOGGING_FILESIZELOGGERSTRATEGY_H

#include "ErrorHandlerDll/logging/FileDependentLoggerStrategy.h"

class FileSizeLoggerStrategy : public FileDependentLoggerStrategy
{
public:
    // `maxFileSize`: in bytes.
    FileSizeLoggerStrategy(LogOutput* output, unsigned int maxFileSize)
        : FileDependentLoggerStrategy(output), m_maxFileSize(maxFileSize)
    {
    }

    bool PrepareOutputSource() override;
    void OnFileFound(std::string_view fileName) override;

    // The number that `fileName` carries, or -1.
    static int GetFileIDFromFileName(std::string_view fileName);

    // The name of file `fileID` of the series that `fileName` belongs to.
    static LogPath BuildLogFileName(std::string_view fileName, int fileID);

private:
    void OpenHighestFile();
    void MoveToNextFile();
    void OpenCurrentFile();

    unsigned int m_maxFileSize;
    int m_currentFileID = 1;
};

#endif
