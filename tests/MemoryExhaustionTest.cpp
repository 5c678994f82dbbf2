// Each allocation of each operation fails in turn. That nothing leaks is seen where the leak sanitizer runs.
#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/ExceptionHandler.h"
#include "ErrorHandlerDll/HalvikException.h"
#include "support/Allocations.h"
#include "support/LogTest.h"

#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

namespace
{

constexpr auto kCustom = static_cast<ZelvoReaderErrorCode>(0x10040);

const std::string kLongText(3000, 'x');
std::runtime_error gLongError(kLongText);
std::bad_alloc gOutOfMemory;
std::string gOtherName; // of a log

void RotateAt(unsigned int size)
{
    LoggingSettings settings = {0, 0, 100, LOGGING_STRATEGY_FILE_SIZE, size, 0};
    SetLoggingOptions(&settings);
}

const struct
{
    void (*run)();
    const char* name;
} kOperations[] = {
    {[] { LogMessage(ZR_LOG_ERROR, 1, "", "message"); }, "LogMessage"},
    {[] { LogFormatted(ZR_LOG_ERROR, 1, "", "%s", kLongText.c_str()); }, "LogFormatted"},
    {[] { InitialiseLogging(true, ZR_LOG_DEBUG_HIGH, 1, gOtherName.c_str()); }, "InitialiseLogging"},
    {[] { RotateAt(2000); }, "SetLoggingOptions"},
    {[] { SetErrorMessage(ZR_ERROR_OCR, "X"); }, "SetErrorMessage"},
    {[] { AddCustomErrorMessage(kCustom, "X"); }, "AddCustomErrorMessage"},
    {[] { RaiseError(ZR_ERROR_OCR, "at", kLongText.c_str()); }, "RaiseError"},
    {[] { LogWarning(0, "at", kLongText.c_str()); }, "LogWarning"},
    {[] { delete ExceptionHandler::HandleUnknownException("F", true); }, "HandleUnknownException"},
    {[] { delete ExceptionHandler::HandleSTDException("F", gLongError, true); }, "HandleSTDException"},
    {[] { delete ExceptionHandler::HandleBadAllocException("F", gOutOfMemory, true); }, "HandleBadAllocException"},
};

// Returns whether memory ran out.
bool RunOutOfMemory(void (*run)(), int allocationsThatSucceed)
{
    Allocations::tFailAfter = allocationsThatSucceed;
    bool isExhausted = false;
    try
    {
        run();
    }
    catch (const std::bad_alloc&)
    {
        isExhausted = true;
    }
    catch (HalvikException* exception)
    {
        delete exception;
    }
    Allocations::tFailAfter = -1;
    return isExhausted;
}

} // namespace

using EveryAllocation = LogTest;

TEST_F(EveryAllocation, MayFailAndOnlyBadAllocLeavesAndTheLockIsFree)
{
    gOtherName = m_folder / "other.log";
    for (const auto& operation : kOperations)
    {
        SCOPED_TRACE(operation.name);
        constexpr int kEnough = 100;
        int failures = 0;
        for (bool isExhausted = true; isExhausted && failures < kEnough; failures += isExhausted)
        {
            m_folder.Empty();
            RotateAt(1000); // what logs has to open a file and to search, and a long text moves to another
            InitialiseLogging(true, 5, ZR_LOG_ALL_CATEGORIES, (m_folder / "app.log").c_str());
            isExhausted = RunOutOfMemory(operation.run, failures);
            std::thread([] { EXPECT_TRUE(Log("lock is free")); }).join();
            ShutdownLogging();
            int found = 0;
            for (const auto& file : std::filesystem::directory_iterator(m_folder / ""))
            {
                for (const LogLine& line : ParseLog(ReadFile(file.path())))
                {
                    found += line.m_text == "lock is free" ? 1 : 0;
                }
            }
            EXPECT_EQ(1, found);
        }
        EXPECT_LT(0, failures);
        EXPECT_LT(failures, kEnough);
        ResetErrorMessages();
    }
}

TEST(MemoryExhaustion, IsHandledWithoutMemory)
{
    ExceptionHandler::SetLastErrorString("");
    EXPECT_FALSE(RunOutOfMemory([] { ExceptionHandler::HandleBadAllocException("F", gOutOfMemory, false); }, 0));
    EXPECT_STREQ("Memory allocation error - std::bad_alloc", ExceptionHandler::m_lastErrorString);
    EXPECT_FALSE(RunOutOfMemory(
        []
        {
            HalvikException error(ZR_ERROR_OCR, "text", "at");
            ExceptionHandler::HandleHalvikException("F", &error);
        },
        0));

    EXPECT_FALSE(RunOutOfMemory(
        []
        {
            char text[100];
            for (const unsigned int code : {1u, 300u, 0x10000u, 0xC0000005u})
            {
                int length = sizeof text;
                GetErrorString(static_cast<ZelvoReaderErrorCode>(code), text, &length);
            }
        },
        0));

    // The last error stays that of the error when only the exception to throw on cannot be made.
    EXPECT_TRUE(RunOutOfMemory([] { ExceptionHandler::HandleBadAllocException("F", gOutOfMemory, true); }, 0));
    EXPECT_EQ(ZR_ERROR_MEMORY_ALLOCATION, ExceptionHandler::m_lastErrorCode);
}
