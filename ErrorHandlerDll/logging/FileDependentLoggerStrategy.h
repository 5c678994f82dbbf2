// A strategy whose choice of file depends on the log files already on disk: turns the log file name into a search mask and
// hands every matching directory entry to its subclass.
#ifndef ERRORHANDLERDLL_LOGGING_FILEDEPENDENTLOGGERSTRATEGY_H
#define ERRORHANDLERDLL_LOGGING_FILEDEPENDENTLOGGERSTRATEGY_H

#include "ErrorHandlerDll/logging/FileLoggerStrategy.h"

class FileDependentLoggerStrategy : public FileLoggerStrategy
{
public:
    using FileLoggerStrategy::FileLoggerStrategy;

    // Calls OnFileFound with the bare name of every entry that matches `searchMask`, "." and ".." excepted.
    // OnFileFound must not throw.
    virtual void SearchCurrentFiles(const LogPath& searchMask);
    virtual void OnFileFound(std::string_view fileName) = 0;

    // The mask that every numbered name of the series of `fileName` matches: `wildcard` takes the place of the text between
    // the last two dots of the last component, or stands before its last dot when there is only one.
    static LogPath GetFileSearchMask(std::string_view fileName, std::string_view wildcard);
};

#endif
