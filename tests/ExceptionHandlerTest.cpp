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

namespace
{

using Lines = std::vector<std::string>;
using Handled = std::unique_ptr<HalvikException>;
using Writer = void (*)(const char*, void*);

constexpr auto kHostCode = static_cast<ZelvoReaderErrorCode>(0x10030);
const std::string kSeparator = "ERROR|----------------------";

HalvikException* Handle(bool propagate, const char* message = "host error", Writer writer = nullptr, void* param = nullptr)
{
    return ExceptionHandler::GenericHandleException("F - ", kHostCode, message, propagate, writer, param);
}

HalvikException* HandleHostError(bool propagate)
{
    const auto writeTwoLines = [](const char* source, void* param)
    {
        LogMessage(ZR_LOG_ERROR, 1, source, static_cast<const char*>(param));
        ExceptionHandler::OnWriteErrorLog_WriteString(source, nullptr);
        LogMessage(ZR_LOG_ERROR, 1, source, "second");
    };
    char first[] = "first";
    return Handle(propagate, "host error", writeTwoLines, first);
}

HalvikException* HandleStd(bool propagate)
{
    std::runtime_error error(std::string(5000, 'x'));
    return ExceptionHandler::HandleSTDException("F - ", error, propagate);
}

HalvikException* HandleBadAlloc(bool propagate)
{
    std::bad_alloc error;
    return ExceptionHandler::HandleBadAllocException("F - ", error, propagate);
}

HalvikException* HandleUnknown(bool propagate)
{
    return ExceptionHandler::HandleUnknownException("F - ", propagate);
}

HalvikException* HandleWithoutWriter(bool propagate)
{
    return Handle(propagate);
}

const std::string kUnknown = "An unknown error occurred";
const std::string kLongMessage = kUnknown + " - " + std::string(5000, 'x');
const std::string kNoMemory = "Memory allocation error - std::bad_alloc";

const struct
{
    const char* function; // that traces
    HalvikException* (*handle)(bool propagate);
    ZelvoReaderErrorCode code;
    std::string message; // whole, as it is logged
    Lines lines;         // behind the separator
} kHandlerRows[] = {
    {"GenericHandleException", HandleHostError, kHostCode, "host error", {"ERROR|F - first", "ERROR|F - second"}},
    {"GenericHandleException", HandleWithoutWriter, kHostCode, "host error", {}},
    {"HandleUnknownException", HandleUnknown, ZR_ERROR_UNKNOWN, kUnknown, {"ERROR|F - " + kUnknown}},
    {"GenericHandleException", HandleStd, ZR_ERROR_UNKNOWN, kLongMessage, {"ERROR|F - " + kLongMessage}},
    {"GenericHandleException", HandleBadAlloc, ZR_ERROR_MEMORY_ALLOCATION, kNoMemory, {"ERROR|F - " + kNoMemory}},
};

std::string Describe(ZelvoReaderErrorCode code, const std::string& message, bool flag)
{
    return std::to_string(code) + "|" + message + "|" + std::to_string(flag);
}

// What the callback gets, and whether the text is the last error itself.
void Record(ZelvoReaderErrorCode code, char* message, void* param)
{
    static_cast<Lines*>(param)->push_back(Describe(code, message, message == ExceptionHandler::m_lastErrorString));
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
        // An override does not reach the handlers' own texts.
        SetErrorMessage(ZR_ERROR_UNKNOWN, "override");
        SetErrorMessage(ZR_ERROR_MEMORY_ALLOCATION, "override");
        ExceptionHandler::SetErrorCallback(Record, &m_reported);
        ExceptionHandler::SetLastErrorString(std::string(600, 'x').c_str());
    }
    ~Handler() override
    {
        ResetErrorMessages();
        ExceptionHandler::SetErrorCallback(nullptr, nullptr);
    }

    Lines m_reported;
};

} // namespace

TEST_F(Handler, TracesRecordsLogsReportsAndPropagates)
{
    for (const auto& row : kHandlerRows)
    {
        const std::string message = row.message.substr(0, 511);
        for (int variant = 0; variant < 8; ++variant)
        {
            const bool logs = variant & 1;
            const bool hasCallback = variant & 2;
            const bool propagate = variant & 4;
            SCOPED_TRACE(message + ", variant " + std::to_string(variant));
            m_reported.clear();
            ExceptionHandler::SetErrorCallback(hasCallback ? Record : nullptr, &m_reported);
            const CapturedLog log(5, ZR_LOG_ALL_CATEGORIES, logs);
            errno = ENOTTY;

            const Handled propagated(row.handle(propagate));

            EXPECT_EQ(ENOTTY, errno);
            ExpectLastError(row.code, message);
            Lines block = {TraceLine(row.function, "Entering"), kSeparator};
            block.insert(block.end(), row.lines.begin(), row.lines.end());
            EXPECT_EQ(logs ? block : Lines{}, log.GetFlushedLines());
            block.push_back(TraceLine(row.function, "Exiting"));
            EXPECT_EQ(logs ? block : Lines{}, log.GetLines());
            EXPECT_EQ(hasCallback ? Lines{Describe(row.code, message, true)} : Lines{}, m_reported);
            ASSERT_EQ(propagate, propagated != nullptr);
            if (propagate)
            {
                EXPECT_EQ(Describe(row.code, message, true),
                          Describe(propagated->GetErrorCode(), propagated->GetErrorString(), propagated->GetHandled()));
                EXPECT_STREQ("F - ", propagated->GetLocationString());
            }
        }
    }
}

TEST_F(Handler, GuardsItsBody)
{
    HalvikException error(kHostCode, "no tag", "");
    const auto throwInWriter = []
    {
        ExceptionHandler::SetErrorCallback(nullptr, nullptr);
        Handle(false, "", [](const char*, void*) { throw 42; });
    };
    std::vector<std::function<void()>> calls = {[&] { ExceptionHandler::HandleHalvikException("", &error); }, throwInWriter};
    for (const auto& row : kHandlerRows)
    {
        calls.push_back([&] { row.handle(true); });
    }
    for (const auto& call : calls)
    {
        const CapturedLog log(5);
        ExceptionHandler::SetErrorCallback([](auto, auto, auto) { throw 42; }, nullptr);
        EXPECT_THROW(call(), int);
        ExpectLastError(ZR_ERROR_IN_EXCEPTION_HANDLER, "An exception was raised within the exception handler.");
        // From another thread, which would wait for ever for a lock that was left held.
        std::thread([] { LogMessage(ZR_LOG_ERROR, 1, "", "lock is free"); }).join();
        const Lines lines = log.GetLines();
        EXPECT_EQ("ERROR|lock is free", lines.back());
        EXPECT_EQ(std::string::npos, testing::PrintToString(lines).find("[Exiting]"));
    }
    EXPECT_TRUE(error.GetHandled()) << "not before the callback";
}

TEST_F(Handler, NeedsNoMemory)
{
    HalvikException error(ZR_ERROR_OCR, "text", "at");
    ExceptionHandler::SetErrorCallback(nullptr, nullptr); // it keeps the text
    const CapturedLog log(ZR_LOG_ERROR, 0);               // drops every line
    const long before = Allocations::tCount;
    bool isCalled = false;
    HandleBadAlloc(false);
    ExceptionHandler::HandleHalvikException("F", &error);
    Handle(
        false, "", [](const char*, void* param) { *static_cast<bool*>(param) = true; }, &isCalled);
    LogFormatted(ZR_LOG_ERROR, 1, "", "%2000d", 1);
    for (const unsigned int code : {1u, 300u, 0x10000u, 0xC0000005u})
    {
        char text[100];
        int length = sizeof text;
        GetErrorString(static_cast<ZelvoReaderErrorCode>(code), text, &length);
    }
    EXPECT_EQ(before, Allocations::tCount);
    EXPECT_TRUE(isCalled) << "whatever the filter drops";

    // The last error stays that of the error when only the exception to throw on cannot be made.
    Allocations::tFailAfter = 0;
    EXPECT_THROW(HandleBadAlloc(true), std::bad_alloc);
    EXPECT_EQ(ZR_ERROR_MEMORY_ALLOCATION, ExceptionHandler::m_lastErrorCode);
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
    Handle(false, "", writer, &other);
    other.join();
    EXPECT_EQ((Lines{kSeparator, "ERROR|block", "ERROR|other"}), log.GetLines());
}

TEST_F(Handler, TakesTheLastErrorItselfAsMessage)
{
    const auto recordAndWipe = [](ZelvoReaderErrorCode code, char* message, void* param)
    {
        Record(code, message, param);
        std::strcpy(message, "wiped");
    };
    ExceptionHandler::SetErrorCallback(recordAndWipe, &m_reported);
    for (const std::size_t offset : {std::size_t{0}, std::size_t{6}})
    {
        const std::string text = std::string("outer inner").substr(offset);
        char* const message = ExceptionHandler::m_lastErrorString + offset;
        ExceptionHandler::SetLastErrorString("outer inner");
        const Handled propagated(Handle(true, message));
        EXPECT_EQ(Describe(kHostCode, text, true), m_reported.back());
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
    errno = ENOTTY;
    ExceptionHandler::HandleHalvikException("Inner - ", &error);
    EXPECT_EQ(ENOTTY, errno);
    ExpectLastError(kHostCode, "no tag");
    EXPECT_TRUE(error.GetHandled());

    ExceptionHandler::SetLastErrorString("later");
    ExceptionHandler::HandleHalvikException("Outer - ", &error);
    ExpectLastError(kHostCode, "later");
    EXPECT_EQ(Lines{Describe(kHostCode, "no tag", true)}, m_reported);

    const std::string entering = TraceLine("HandleHalvikException", "Entering");
    const std::string exiting = TraceLine("HandleHalvikException", "Exiting");
    EXPECT_EQ((Lines{entering, kSeparator, "ERROR|Rf(7) : Read() - no tag", "ERROR|Inner - [caught]: no tag", exiting,
                     entering, "DEBUG_LOW|Outer - [propagating]: no tag", exiting}),
              log.GetLines());
}
