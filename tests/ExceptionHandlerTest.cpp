#include "ErrorHandlerDll/ExceptionHandler.h"
#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/HalvikException.h"
#include "support/LogTest.h"

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace
{

using Lines = std::vector<std::string>;
using Handled = std::unique_ptr<HalvikException>;

constexpr auto kHostCode = static_cast<ZelvoReaderErrorCode>(0x10030);
constexpr const char* kFailureText = "An exception was raised within the exception handler.";
const std::string kSeparator = "ERROR|----------------------";

struct OutOfMemory : std::bad_alloc
{
    const char* what() const noexcept override { return "16 MB"; }
};

void WriteTwoLines(const char* source, void* param)
{
    LogMessage(ZR_LOG_ERROR, 1, source, static_cast<const char*>(param));
    LogMessage(ZR_LOG_ERROR, 1, source, "second");
}

HalvikException* HandleHostError(bool propagate)
{
    char first[] = "first";
    return ExceptionHandler::GenericHandleException("F - ", kHostCode, "host error", propagate, WriteTwoLines, first);
}

HalvikException* HandleWithoutWriter(bool propagate)
{
    return ExceptionHandler::GenericHandleException("F - ", kHostCode, "host error", propagate, nullptr, nullptr);
}

HalvikException* HandleUnknown(bool propagate)
{
    return ExceptionHandler::HandleUnknownException("F - ", propagate);
}

HalvikException* HandleStd(bool propagate)
{
    std::runtime_error error("disk gone");
    return ExceptionHandler::HandleSTDException("F - ", error, propagate);
}

HalvikException* HandleBadAlloc(bool propagate)
{
    OutOfMemory error;
    return ExceptionHandler::HandleBadAllocException("F - ", error, propagate);
}

struct HandlerRow
{
    const char* function; // that traces
    HalvikException* (*handle)(bool propagate);
    ZelvoReaderErrorCode code;
    std::string message;
    Lines block;
};

const HandlerRow kHandlerRows[] = {
    {"GenericHandleException",
     HandleHostError,
     kHostCode,
     "host error",
     {kSeparator, "ERROR|F - first", "ERROR|F - second"}},
    {"GenericHandleException", HandleWithoutWriter, kHostCode, "host error", {kSeparator}},
    {"HandleUnknownException",
     HandleUnknown,
     ZR_ERROR_UNKNOWN,
     "An unknown error occurred",
     {kSeparator, "ERROR|F - An unknown error occurred"}},
    {"GenericHandleException",
     HandleStd,
     ZR_ERROR_UNKNOWN,
     "An unknown error occurred - disk gone",
     {kSeparator, "ERROR|F - An unknown error occurred - disk gone"}},
    {"GenericHandleException",
     HandleBadAlloc,
     ZR_ERROR_MEMORY_ALLOCATION,
     "Memory allocation error - 16 MB",
     {kSeparator, "ERROR|F - Memory allocation error - 16 MB"}},
};

// What the callback got: code, text, and whether the text is the last error itself.
struct Report
{
    int calls = 0;
    ZelvoReaderErrorCode code = ZR_ERROR_NONE;
    std::string text;
    bool isLastError = false;
};

void Record(ZelvoReaderErrorCode code, char* message, void* param)
{
    Report& report = *static_cast<Report*>(param);
    ++report.calls;
    report.code = code;
    report.text = message;
    report.isLastError = message == ExceptionHandler::m_lastErrorString;
}

void Throw(ZelvoReaderErrorCode, char*, void*)
{
    throw 42;
}

// From another thread, which would wait for ever for a lock that was left held.
void ExpectLockIsFree()
{
    std::thread([] { LogMessage(ZR_LOG_ERROR, 1, "", "lock is free"); }).join();
}

void ExpectLastError(ZelvoReaderErrorCode code, const std::string& text)
{
    EXPECT_EQ(code, ExceptionHandler::m_lastErrorCode);
    EXPECT_EQ(text + std::string(512 - text.size(), '\0'), std::string(ExceptionHandler::m_lastErrorString, 512));
}

class Handler : public testing::Test
{
protected:
    void SetUp() override
    {
        // An override does not reach the handlers' own texts.
        SetErrorMessage(ZR_ERROR_UNKNOWN, "override");
        SetErrorMessage(ZR_ERROR_MEMORY_ALLOCATION, "override");
        ExceptionHandler::SetErrorCallback(Record, &m_report);
        ExceptionHandler::SetLastErrorString(std::string(600, 'x').c_str());
    }
    void TearDown() override
    {
        ResetErrorMessages();
        ExceptionHandler::SetErrorCallback(nullptr, nullptr);
    }

    Report m_report;
};

} // namespace

TEST_F(Handler, RecordsLogsReportsAndPropagates)
{
    for (const HandlerRow& row : kHandlerRows)
    {
        for (int variant = 0; variant < 8; ++variant)
        {
            const bool logs = variant & 1;
            const bool hasCallback = variant & 2;
            const bool propagate = variant & 4;
            SCOPED_TRACE(row.message + ", variant " + std::to_string(variant));
            m_report = Report();
            ExceptionHandler::SetErrorCallback(hasCallback ? Record : nullptr, &m_report);
            const CapturedLog log(ZR_LOG_DEBUG_HIGH, ZR_LOG_ALL_CATEGORIES, logs);
            errno = ENOTTY;

            const Handled propagated(row.handle(propagate));

            EXPECT_EQ(ENOTTY, errno);
            ExpectLastError(row.code, row.message);
            EXPECT_EQ(logs ? row.block : Lines{}, log.GetFlushedLines());
            EXPECT_EQ(hasCallback ? 1 : 0, m_report.calls);
            if (hasCallback)
            {
                EXPECT_EQ(row.code, m_report.code);
                EXPECT_EQ(row.message, m_report.text);
                EXPECT_TRUE(m_report.isLastError);
            }
            ASSERT_EQ(propagate, propagated != nullptr);
            if (propagate)
            {
                EXPECT_EQ(row.code, propagated->GetErrorCode());
                EXPECT_EQ(row.message, propagated->GetErrorString());
                EXPECT_STREQ("F - ", propagated->GetLocationString());
                EXPECT_TRUE(propagated->GetHandled());
            }
        }
    }
}

TEST_F(Handler, TracesAtItsLevelAndGuardsItsBody)
{
    for (const HandlerRow& row : kHandlerRows)
    {
        SCOPED_TRACE(row.message);
        const std::string trace = std::string("Level 5|ErrorHandlerDll/ExceptionHandler.cpp(N) : ") + row.function + "() - ";
        Lines block = row.block;
        block.insert(block.begin(), trace + "[Entering]");

        ExceptionHandler::SetErrorCallback(Throw, nullptr);
        {
            const CapturedLog log(5);
            EXPECT_THROW(row.handle(true), int);
            ExpectLastError(ZR_ERROR_IN_EXCEPTION_HANDLER, kFailureText);
            EXPECT_EQ(block, log.GetLines());
            ExpectLockIsFree();
        }
        ExceptionHandler::SetErrorCallback(nullptr, nullptr);
        const CapturedLog log(5);
        row.handle(false);
        block.push_back(trace + "[Exiting]");
        EXPECT_EQ(block, log.GetLines());
    }
}

TEST_F(Handler, LeavesTheLockWhenTheWriterThrows)
{
    const CapturedLog log;
    const auto writer = [](const char*, void*)
    {
        throw std::runtime_error("writer");
    };
    EXPECT_THROW(ExceptionHandler::GenericHandleException("", kHostCode, "", false, writer, nullptr), std::runtime_error);
    ExpectLastError(ZR_ERROR_IN_EXCEPTION_HANDLER, kFailureText);
    EXPECT_EQ(0, m_report.calls);
    ExpectLockIsFree();
    EXPECT_EQ((Lines{kSeparator, "ERROR|lock is free"}), log.GetLines());
}

TEST_F(Handler, CallsTheWriterWhenTheFilterDropsTheBlock)
{
    const CapturedLog log(ZR_LOG_ERROR, 0);
    bool isCalled = false;
    const auto writer = [](const char*, void* param)
    {
        *static_cast<bool*>(param) = true;
    };
    ExceptionHandler::GenericHandleException("", kHostCode, "", false, writer, &isCalled);
    EXPECT_TRUE(isCalled);
    EXPECT_EQ(Lines{}, log.GetLines());
}

TEST_F(Handler, KeepsItsBlockTogether)
{
    const CapturedLog log;
    std::thread other;
    const auto writer = [](const char*, void* param)
    {
        *static_cast<std::thread*>(param) = std::thread([] { LogMessage(ZR_LOG_ERROR, 1, "", "other"); });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        LogMessage(ZR_LOG_ERROR, 1, "", "block");
    };
    ExceptionHandler::GenericHandleException("", kHostCode, "", false, writer, &other);
    other.join();
    EXPECT_EQ((Lines{kSeparator, "ERROR|block", "ERROR|other"}), log.GetLines());
}

TEST_F(Handler, TakesTheLastErrorItselfAsMessage)
{
    const auto wipe = [](ZelvoReaderErrorCode, char* message, void*)
    {
        std::strcpy(message, "wiped");
    };
    for (const std::size_t offset : {std::size_t{0}, std::size_t{6}})
    {
        const std::string text = std::string("outer inner").substr(offset);
        ExceptionHandler::SetErrorCallback(Record, &m_report);
        ExceptionHandler::SetLastErrorString("outer inner");
        char* const message = ExceptionHandler::m_lastErrorString + offset;
        delete ExceptionHandler::GenericHandleException("", kHostCode, message, true, nullptr, nullptr);
        ExpectLastError(kHostCode, text);
        EXPECT_EQ(text, m_report.text);

        ExceptionHandler::SetErrorCallback(wipe, nullptr);
        ExceptionHandler::SetLastErrorString("outer inner");
        const Handled propagated(ExceptionHandler::GenericHandleException("", kHostCode, message, true, nullptr, nullptr));
        EXPECT_EQ(text, propagated->GetErrorString());
        EXPECT_STREQ("wiped", ExceptionHandler::m_lastErrorString);

        ExceptionHandler::SetLastErrorString("outer inner");
        ExceptionHandler::SetLastErrorString(message);
        ExpectLastError(kHostCode, text);
    }
    ExceptionHandler::SetLastErrorString(nullptr);
    ExpectLastError(kHostCode, "");
}

TEST_F(Handler, ReportsAHalvikExceptionOnceHoweverManyBoundariesItPasses)
{
    const CapturedLog log(5);
    HalvikException error(kHostCode, "no tag", "Rf(7) : Read() - ");
    ExceptionHandler::HandleHalvikException("Inner - ", &error);
    ExpectLastError(kHostCode, "no tag");
    EXPECT_TRUE(error.GetHandled());
    EXPECT_EQ("no tag", m_report.text);

    ExceptionHandler::SetLastErrorString("later");
    ExceptionHandler::HandleHalvikException("Outer - ", &error);
    ExpectLastError(kHostCode, "later");
    EXPECT_EQ(1, m_report.calls);

    const std::string trace = "Level 5|ErrorHandlerDll/ExceptionHandler.cpp(N) : HandleHalvikException() - ";
    EXPECT_EQ(
        (Lines{trace + "[Entering]", kSeparator, "ERROR|Rf(7) : Read() - no tag", "ERROR|Inner - [caught]: no tag",
               trace + "[Exiting]", trace + "[Entering]", "DEBUG_LOW|Outer - [propagating]: no tag", trace + "[Exiting]"}),
        log.GetLines());

    ExceptionHandler::SetErrorCallback(Throw, nullptr);
    HalvikException second(kHostCode, "no tag", "");
    EXPECT_THROW(ExceptionHandler::HandleHalvikException("", &second), int);
    EXPECT_TRUE(second.GetHandled()) << "not before the callback";
    ExpectLastError(ZR_ERROR_IN_EXCEPTION_HANDLER, kFailureText);
    ExpectLockIsFree();
}

TEST_F(Handler, LogsALongTextWhole)
{
    const CapturedLog log;
    std::runtime_error error(std::string(5000, 'x'));
    ExceptionHandler::HandleSTDException("", error, false);
    const std::string whole = "An unknown error occurred - " + std::string(5000, 'x');
    ExpectLastError(ZR_ERROR_UNKNOWN, whole.substr(0, 511));
    EXPECT_EQ((Lines{kSeparator, "ERROR|" + whole}), log.GetLines());
}
