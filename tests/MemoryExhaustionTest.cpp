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

const struct
{
    void (*run)();
    const char* name;
} kOperations[] = {
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

TEST(MemoryExhaustion, OnlyBadAllocLeavesAndTheLockIsFree)
{
    for (const auto& operation : kOperations)
    {
        SCOPED_TRACE(operation.name);
        constexpr int kEnough = 100;
        int failures = 0;
        for (bool isExhausted = true; isExhausted && failures < kEnough; failures += isExhausted)
        {
            const CapturedLog log(5);
            isExhausted = RunOutOfMemory(operation.run, failures);
            std::thread([] { EXPECT_TRUE(LogMessage(ZR_LOG_ERROR, 1, "", "lock is free")); }).join();
            EXPECT_EQ("ERROR|lock is free", log.GetLines().back());
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

    // The last error stays that of the error when only the exception to throw on cannot be made.
    EXPECT_TRUE(RunOutOfMemory([] { ExceptionHandler::HandleBadAllocException("F", gOutOfMemory, true); }, 0));
    EXPECT_EQ(ZR_ERROR_MEMORY_ALLOCATION, ExceptionHandler::m_lastErrorCode);
}
