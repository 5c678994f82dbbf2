#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "support/LogTest.h"

TEST(Warning, IsLoggedWholeThenReportedWhateverTheLogFilters)
{
    // Logs what it gets: the order of the lines shows that the warning was logged before.
    const auto report = [](std::uint32_t code, char* text, void* source)
    {
        LogFormatted(ZR_LOG_ERROR, 1, static_cast<const char*>(source), "%u|%s", code, text);
    };
    char source[] = "callback ";
    const std::string longText(5000, 'x');
    const CapturedLog log;
    SetWarningCallback(report, source);
    LogWarning(1, "Feeder - ", 42);
    LogWarning(0, nullptr, longText.c_str());
    SetWarningCallback([](auto, auto, auto) { throw 1; }, nullptr);
    EXPECT_THROW(LogWarning(1, "", 3), int);
    SetWarningCallback(nullptr, source);
    LogWarning(1, "", 4);
    InitialiseLogging(true, ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, std::string(GetLogFilename()).c_str());
    SetWarningCallback(report, source);
    LogWarning(2, ""); // the first that is none
    SetWarningCallback(nullptr, nullptr);
    EXPECT_EQ((std::vector<std::string>{
                  "WARNING|Feeder - Ossel arm timeout failure - 42", "ERROR|callback 1|Ossel arm timeout failure - 42",
                  "WARNING|An unknown warning occured - " + longText,
                  "ERROR|callback 0|An unknown warning occured - " + longText, "WARNING|Ossel arm timeout failure - 3",
                  "WARNING|Ossel arm timeout failure - 4", "ERROR|callback 2|Invalid warning code"}),
              log.GetLines());
}
