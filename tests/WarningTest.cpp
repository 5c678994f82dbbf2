#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "support/LogTest.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <vector>

namespace
{

using Lines = std::vector<std::string>;

class Warning : public testing::Test
{
protected:
    void SetUp() override { SetWarningCallback(Record, &m_reported); }
    void TearDown() override { SetWarningCallback(nullptr, nullptr); }

    // Logs as well: the order of the lines shows that the warning was logged before.
    static void Record(std::uint32_t code, char* text, void* param)
    {
        static_cast<Lines*>(param)->push_back(std::to_string(code) + "|" + text);
        LogMessage(ZR_LOG_WARNING, 1, "", "callback");
    }

    Lines m_reported;
};

} // namespace

TEST_F(Warning, IsLoggedWholeThenReported)
{
    const CapturedLog log;
    const std::string longText(5000, 'x');
    LogWarning(1, "Feeder - ", 42);
    LogWarning(0, nullptr, longText.c_str());
    LogWarning(2, "Feeder - "); // the first that is none
    EXPECT_EQ(
        (Lines{"1|Ossel arm timeout failure - 42", "0|An unknown warning occured - " + longText, "2|Invalid warning code"}),
        m_reported);
    EXPECT_EQ((Lines{"WARNING|Feeder - Ossel arm timeout failure - 42", "WARNING|callback",
                     "WARNING|An unknown warning occured - " + longText, "WARNING|callback",
                     "WARNING|Feeder - Invalid warning code", "WARNING|callback"}),
              log.GetLines());
}

TEST_F(Warning, IsReportedWhateverTheLogFiltersAndLoggedWithoutCallback)
{
    {
        const CapturedLog log(ZR_LOG_ERROR);
        LogWarning(1, "", 1);
        EXPECT_EQ(Lines{}, log.GetLines());
    }
    LogWarning(1, "", 2); // logging is off
    EXPECT_EQ((Lines{"1|Ossel arm timeout failure - 1", "1|Ossel arm timeout failure - 2"}), m_reported);

    SetWarningCallback(nullptr, &m_reported);
    const CapturedLog log;
    LogWarning(1, "", 3);
    EXPECT_EQ(Lines{"WARNING|Ossel arm timeout failure - 3"}, log.GetLines());
    EXPECT_EQ(2u, m_reported.size());
}

TEST_F(Warning, WhatTheCallbackThrowsLeavesAfterTheLine)
{
    const CapturedLog log;
    SetWarningCallback([](std::uint32_t, char*, void*) { throw std::runtime_error("no"); }, nullptr);
    EXPECT_THROW(LogWarning(1, "", 1), std::runtime_error);
    EXPECT_EQ(Lines{"WARNING|Ossel arm timeout failure - 1"}, log.GetLines());
}

TEST_F(Warning, TemplateIsCopied)
{
    char buffer[100];
    int length = sizeof buffer;
    EXPECT_EQ(ZR_ERROR_NONE, GetWarningString(0, buffer, &length));
    EXPECT_EQ(32, length);
    EXPECT_STREQ("An unknown warning occured - %s", buffer);
}
