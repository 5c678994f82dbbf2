#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "support/LogTest.h"

#include <stdexcept>

using Lines = std::vector<std::string>;

TEST(Warning, IsLoggedWholeThenReportedWhateverTheLogFilters)
{
    // Logs as well: the order of the lines shows that the warning was logged before.
    const auto record = [](std::uint32_t code, char* text, void* param)
    {
        static_cast<Lines*>(param)->push_back(std::to_string(code) + "|" + text);
        LogMessage(ZR_LOG_WARNING, 1, "", "callback");
    };
    Lines reported;
    const CapturedLog log;
    const std::string longText(5000, 'x');
    SetWarningCallback(record, &reported);
    LogWarning(1, "Feeder - ", 42);
    LogWarning(0, nullptr, longText.c_str());
    LogWarning(2, "Feeder - "); // the first that is none
    SetWarningCallback(nullptr, &reported);
    LogWarning(1, "", 3);
    SetWarningCallback([](std::uint32_t, char*, void*) { throw std::runtime_error("no"); }, nullptr);
    EXPECT_THROW(LogWarning(1, "", 4), std::runtime_error);
    EXPECT_EQ((Lines{"WARNING|Feeder - Ossel arm timeout failure - 42", "WARNING|callback",
                     "WARNING|An unknown warning occured - " + longText, "WARNING|callback",
                     "WARNING|Feeder - Invalid warning code", "WARNING|callback", "WARNING|Ossel arm timeout failure - 3",
                     "WARNING|Ossel arm timeout failure - 4"}),
              log.GetLines());
    InitialiseLogging(false, ZR_LOG_WARNING, 1, "");
    SetWarningCallback(record, &reported);
    LogWarning(1, "", 2);
    SetWarningCallback(nullptr, nullptr);
    EXPECT_EQ((Lines{"1|Ossel arm timeout failure - 42", "0|An unknown warning occured - " + longText,
                     "2|Invalid warning code", "1|Ossel arm timeout failure - 2"}),
              reported);
}
