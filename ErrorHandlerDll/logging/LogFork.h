// Fork: the child of a busy process must be able to log, and nothing buffered may be written by both. What pthread_atfork
// calls for the one log.
#ifndef ERRORHANDLERDLL_LOGGING_LOGFORK_H
#define ERRORHANDLERDLL_LOGGING_LOGFORK_H

class FileLogger;

class LogFork
{
public:
    // Waits for the section, and for a file that takes nothing, no longer than FileLogger::kMaxWaitMs.
    static void Before(FileLogger& logger);
    static void AfterInParent(FileLogger& logger);
    static void AfterInChild(FileLogger& logger);
};

#endif
