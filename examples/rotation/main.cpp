// A log in numbered files: rotation.1.log, rotation.2.log and so on, none larger than the limit. Old files stay until
// somebody removes them: here the host keeps the newest.
#include <ErrorHandlerDll/ErrorHandlerDll.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace
{

constexpr int kMaxFileSize = 4096;
constexpr int kFilesToKeep = 3;

std::string FileName(int number)
{
    return "rotation." + std::to_string(number) + ".log";
}

// The number of the file that is being written. The name is copied at once: the next rotation changes it.
int CurrentNumber()
{
    const std::string name = GetLogFilename();
    int number = 0;
    return std::sscanf(name.c_str(), "rotation.%d.log", &number) == 1 ? number : 0;
}

} // namespace

int main()
{
    LoggingSettings settings;
    GetLoggingOptions(&settings);
    settings.strategy = LOGGING_STRATEGY_FILE_SIZE;
    settings.maxFileSize = kMaxFileSize;
    SetLoggingOptions(&settings);
    InitialiseLogging(true, ZR_LOG_DEBUG_LOW, ZR_LOG_ALL_CATEGORIES, "rotation.log");

    for (int page = 1; page <= 500; ++page)
    {
        LogFormatted(ZR_LOG_DEBUG_LOW, 1, "Scan() - ", "page %d read", page);
    }
    const int last = CurrentNumber();
    ShutdownLogging();

    for (int number = last - kFilesToKeep; number > 0 && std::filesystem::remove(FileName(number)); --number)
    {
    }
    for (int number = last; number > last - kFilesToKeep; --number)
    {
        const bool fits =
            std::filesystem::exists(FileName(number)) && std::filesystem::file_size(FileName(number)) < kMaxFileSize;
        if (!fits)
        {
            return EXIT_FAILURE;
        }
    }
    return std::filesystem::exists(FileName(last - kFilesToKeep)) ? EXIT_FAILURE : EXIT_SUCCESS;
}
