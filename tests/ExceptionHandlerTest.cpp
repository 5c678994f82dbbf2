// The handlers: what they trace, record, log, report and pass on.
#include "ErrorHandlerDll/ExceptionHandler.h"

#include "ErrorHandlerDll/HalvikException.h"
#include "support/Allocations.h"
#include "support/LogTest.h"

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <tuple>

namespace
{

using Lines = std::vector<std::string>;

constexpr auto kHostCode = static_cast<ZelvoReaderErrorCode>(0x10030);
const std::string kSeparator = "ERROR|----------------------";

HalvikException* Handle(const char* message, void (*writer)(const char*, void*), void* param, bool propagate)
{
    return ExceptionHandler::GenericHandleException("F - ", kHostCode, message, propagate, writer, param);
}

char gHostError[] = "host error";
std::runtime_error gLongError(std::string(5000, 'x'));
std::bad_alloc gNoMemory;
const auto HandleHost = std::bind_front(Handle, gHostError, ExceptionHandler::OnWriteErrorLog_WriteString, gHostError);
const auto HandleStd = std::bind_front(ExceptionHandler::HandleSTDException, "F - ", std::ref<std::exception>(gLongError));
const auto HandleBadAlloc = std::bind_front(ExceptionHandler::HandleBadAllocException, "F - ", std::ref(gNoMemory));
const auto HandleUnknown = std::bind_front(ExceptionHandler::HandleUnknownException, "F - ");

// The error callback: logs what it gets, so that the log shows when, and whether the text is the last error itself. It may
// change that one.
void LogAndWipe(ZelvoReaderErrorCode code, char* message, void* param)
{
    const bool isLastError = message == ExceptionHandler::m_lastErrorString;
    LogFormatted(ZR_LOG_ERROR, 1, static_cast<const char*>(param), "%d|%s|%d", code, message, isLastError);
    std::strcpy(message, "wiped");
    errno = EDOM;
}

std::string TraceLine(const std::string& function, const char* what)
{
    return "Level 5|ErrorHandlerDll/ExceptionHandler.cpp(N) : " + function + "() - [" + what + "]";
}

void ExpectLastError(ZelvoReaderErrorCode code, const std::string& text)
{
    EXPECT_EQ(code, ExceptionHandler::m_lastErrorCode);
    EXPECT_EQ(text + std::string(512 - text.size(), '\0'), std::string(ExceptionHandler::m_lastErrorString, 512));
}

class Handler : public testing::Test
{
protected:
    Handler()
    {
        SetErrorMessage(ZR_ERROR_UNKNOWN, "does not reach the handlers' own texts");
        SetErrorMessage(ZR_ERROR_MEMORY_ALLOCATION, "does not either");
        ExceptionHandler::SetErrorCallback(LogAndWipe, m_source);
    }
    ~Handler() override
    {
        ResetErrorMessages();
        ExceptionHandler::SetErrorCallback(nullptr, nullptr);
    }

    char m_source[10] = "callback ";
};

} // namespace

TEST_F(Handler, TracesRecordsLogsReportsAndPropagates)
{
    // The function that traces, the handler, the code, and the message, whole, as it is logged.
    const std::string unknown = "An unknown error occurred";
    const std::tuple<std::string, std::function<HalvikException*(bool)>, ZelvoReaderErrorCode, std::string> rows[] = {
        {"GenericHandleException", HandleHost, kHostCode, gHostError},
        {"HandleUnknownException", HandleUnknown, ZR_ERROR_UNKNOWN, unknown},
        {"GenericHandleException", HandleStd, ZR_ERROR_UNKNOWN, unknown + " - " + gLongError.what()},
        {"GenericHandleException", HandleBadAlloc, ZR_ERROR_MEMORY_ALLOCATION, "Memory allocation error - std::bad_alloc"},
    };
    for (const auto& [function, handle, code, logged] : rows)
    {
        const std::string message = logged.substr(0, 511);
        const std::string error = std::to_string(code) + "|" + message + "|1";
        const CapturedLog log(5);
        errno = ENOTTY;
        const std::unique_ptr<HalvikException> propagated(handle(true));
        EXPECT_EQ(ENOTTY, errno);
        Lines lines = {TraceLine(function, "Entering"), kSeparator, "ERROR|F - " + logged};
        EXPECT_EQ(lines, log.GetFlushedLines());
        LogFormatted(ZR_LOG_ERROR, 1, propagated->GetLocationString(), "%d|%s|%d", propagated->GetErrorCode(),
                     propagated->GetErrorString(), propagated->GetHandled());
        lines.insert(lines.end(), {"ERROR|callback " + error, TraceLine(function, "Exiting"), "ERROR|F - " + error});
        EXPECT_EQ(lines, log.GetLines());

        ExceptionHandler::SetLastErrorString(std::string(600, 'x').c_str());
        ExceptionHandler::SetErrorCallback(nullptr, nullptr);
        const CapturedLog switchedOff(5, ZR_LOG_ALL_CATEGORIES, false);
        EXPECT_EQ(nullptr, handle(false));
        EXPECT_EQ(Lines{}, switchedOff.GetLines());
        ExpectLastError(code, message);
        ExceptionHandler::SetErrorCallback(LogAndWipe, m_source);
    }
}

TEST_F(Handler, GuardsItsBody)
{
    HalvikException error(kHostCode, "no tag", "");
    const std::function<void()> calls[] = {std::bind_front(ExceptionHandler::HandleHalvikException, "", &error),
                                           std::bind_front(HandleUnknown, true)};
    ExceptionHandler::SetErrorCallback([](auto...) { throw 42; }, nullptr);
    for (const auto& call : calls)
    {
        const CapturedLog log(5);
        EXPECT_THROW(call(), int);
        ExpectLastError(ZR_ERROR_IN_EXCEPTION_HANDLER, "An exception was raised within the exception handler.");
        EXPECT_EQ(std::string::npos, testing::PrintToString(log.GetLines()).find("[Exiting]"));
    }
    EXPECT_TRUE(error.GetHandled()) << "not before the callback";
}

TEST_F(Handler, NeedsNoMemory)
{
    HalvikException error(ZR_ERROR_OCR, "text", "at");
    ExceptionHandler::SetErrorCallback(nullptr, nullptr); // it keeps the text
    const CapturedLog log(ZR_LOG_ERROR, 0);               // drops every line
    const long before = Allocations::tCount;
    HandleBadAlloc(false);
    Handle("", ExceptionHandler::OnWriteErrorLog_WriteString, nullptr, false);
    ExceptionHandler::HandleHalvikException("F", &error);
    EXPECT_EQ(before, Allocations::tCount);

    // The last error stays that of the error when only the exception to throw on cannot be made.
    Allocations::tFailAfter = 0;
    EXPECT_THROW(HandleBadAlloc(true), std::bad_alloc);
    EXPECT_EQ(ZR_ERROR_MEMORY_ALLOCATION, ExceptionHandler::m_lastErrorCode);
}

TEST_F(Handler, KeepsItsBlockTogether)
{
    ExceptionHandler::SetErrorCallback(nullptr, nullptr);
    const CapturedLog log;
    std::thread other;
    const auto writer = [](const char*, void* param)
    {
        *static_cast<std::thread*>(param) = std::thread([] { LogMessage(ZR_LOG_ERROR, 1, "", "other"); });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        LogMessage(ZR_LOG_ERROR, 1, "", "block");
    };
    Handle("", writer, &other, false);
    other.join();
    EXPECT_EQ((Lines{kSeparator, "ERROR|block", "ERROR|other"}), log.GetLines());
}

TEST_F(Handler, TakesTheLastErrorItselfAsMessage)
{
    ExceptionHandler::SetLastErrorString("outer inner");
    const std::unique_ptr<HalvikException> propagated(
        Handle(ExceptionHandler::m_lastErrorString + 6, nullptr, nullptr, true));
    EXPECT_STREQ("inner", propagated->GetErrorString());

    ExceptionHandler::SetLastErrorString("outer inner");
    ExceptionHandler::SetLastErrorString(ExceptionHandler::m_lastErrorString + 6);
    ExpectLastError(kHostCode, "inner");
    ExceptionHandler::SetLastErrorString(nullptr);
    ExpectLastError(kHostCode, "");
}

TEST_F(Handler, ReportsAHalvikExceptionOnceHoweverManyBoundariesItPasses)
{
    const CapturedLog log(5);
    HalvikException error(kHostCode, "no tag", "Rf(7) : Read() - ");
    errno = ENOTTY;
    ExceptionHandler::HandleHalvikException("Inner - ", &error);
    EXPECT_EQ(ENOTTY, errno);
    ExceptionHandler::HandleHalvikException("Outer - ", &error);
    EXPECT_STREQ("wiped", ExceptionHandler::m_lastErrorString) << "set again";

    const std::string entering = TraceLine("HandleHalvikException", "Entering");
    const std::string exiting = TraceLine("HandleHalvikException", "Exiting");
    EXPECT_EQ(
        (Lines{entering, kSeparator, "ERROR|Rf(N) : Read() - no tag", "ERROR|Inner - [caught]: no tag",
               "ERROR|callback 65584|no tag|1", exiting, entering, "DEBUG_LOW|Outer - [propagating]: no tag", exiting}),
        log.GetLines());
    const std::string text = ReadFile(GetLogFilename());
    std::smatch match;
    ASSERT_TRUE(
        std::regex_search(text, match, std::regex(R"(\.cpp\((\d+)\).*\[Entering\][^]*\.cpp\((\d+)\).*\[Exiting\])")));
    EXPECT_LT(std::stoi(match[1]), std::stoi(match[2])) << "the trace names the lines of the entry and of the exit";
}
