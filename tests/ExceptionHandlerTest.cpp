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

constexpr auto kHostCode = static_cast<ZelvoReaderErrorCode>(0x10030);
const std::string kSeparator = "ERROR|----------------------";

HalvikException* Handle(bool propagate, const char* message, void (*writer)(const char*, void*), void* param = nullptr)
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

std::runtime_error gLongError(std::string(5000, 'x'));
std::bad_alloc gNoMemory;
const auto HandleStd = std::bind_front(ExceptionHandler::HandleSTDException, "F - ", std::ref<std::exception>(gLongError));
const auto HandleBadAlloc = std::bind_front(ExceptionHandler::HandleBadAllocException, "F - ", std::ref(gNoMemory));
const auto HandleUnknown = std::bind_front(ExceptionHandler::HandleUnknownException, "F - ");
const std::string kUnknown = "An unknown error occurred";
const std::string kLongMessage = kUnknown + " - " + std::string(5000, 'x');
const std::string kNoMemory = "Memory allocation error - std::bad_alloc";

const struct
{
    const char* function; // that traces
    std::function<HalvikException*(bool propagate)> handle;
    ZelvoReaderErrorCode code;
    std::string message; // whole, as it is logged
    Lines lines;         // behind the separator
} kHandlerRows[] = {
    {"GenericHandleException", HandleHostError, kHostCode, "host error", {"ERROR|F - first", "ERROR|F - second"}},
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
        SetErrorMessage(ZR_ERROR_UNKNOWN, "does not reach the handlers' own texts");
        SetErrorMessage(ZR_ERROR_MEMORY_ALLOCATION, "does not either");
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
        for (const bool isAllOn : {true, false})
        {
            const std::string message = row.message.substr(0, 511);
            SCOPED_TRACE(message + std::to_string(isAllOn));
            const std::string described = Describe(row.code, message, true);
            m_reported.clear();
            ExceptionHandler::SetErrorCallback(isAllOn ? Record : nullptr, &m_reported);
            const CapturedLog log(5, ZR_LOG_ALL_CATEGORIES, isAllOn);
            errno = ENOTTY;

            const Handled propagated(row.handle(isAllOn));

            EXPECT_EQ(ENOTTY, errno);
            ExpectLastError(row.code, message);
            Lines block = {TraceLine(row.function, "Entering"), kSeparator};
            block.insert(block.end(), row.lines.begin(), row.lines.end());
            EXPECT_EQ(isAllOn ? block : Lines{}, log.GetFlushedLines());
            block.push_back(TraceLine(row.function, "Exiting"));
            EXPECT_EQ(isAllOn ? block : Lines{}, log.GetLines());
            EXPECT_EQ(isAllOn ? Lines{described} : Lines{}, m_reported);
            ASSERT_EQ(isAllOn, propagated != nullptr);
            if (isAllOn)
            {
                EXPECT_EQ(described,
                          Describe(propagated->GetErrorCode(), propagated->GetErrorString(), propagated->GetHandled()));
                EXPECT_STREQ("F - ", propagated->GetLocationString());
            }
        }
    }
}

TEST_F(Handler, GuardsItsBody)
{
    HalvikException error(kHostCode, "no tag", "");
    const std::function<void()> calls[] = {[&] { ExceptionHandler::HandleHalvikException("", &error); },
                                           [] { Handle(false, "", [](const char*, void*) { throw 42; }); },
                                           []
                                           {
                                               HandleUnknown(true);
                                           }};
    for (const auto& call : calls)
    {
        const CapturedLog log(5);
        ExceptionHandler::SetErrorCallback([](auto, auto, auto) { throw 42; }, nullptr);
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
    ExceptionHandler::HandleHalvikException("F", &error);
    EXPECT_EQ(before, Allocations::tCount);

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
    ExceptionHandler::SetLastErrorString("outer inner");
    const Handled propagated(Handle(true, ExceptionHandler::m_lastErrorString + 6, nullptr));
    EXPECT_EQ(Lines{Describe(kHostCode, "inner", true)}, m_reported);
    EXPECT_STREQ("inner", propagated->GetErrorString());
    EXPECT_STREQ("wiped", ExceptionHandler::m_lastErrorString);

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
    ExpectLastError(kHostCode, "no tag");
    EXPECT_TRUE(error.GetHandled());

    ExceptionHandler::SetLastErrorString("later");
    ExceptionHandler::HandleHalvikException("Outer - ", &error);
    ExpectLastError(kHostCode, "later");
    EXPECT_EQ(Lines{Describe(kHostCode, "no tag", true)}, m_reported);

    const std::string entering = TraceLine("HandleHalvikException", "Entering");
    const std::string exiting = TraceLine("HandleHalvikException", "Exiting");
    EXPECT_EQ((Lines{entering, kSeparator, "ERROR|Rf(N) : Read() - no tag", "ERROR|Inner - [caught]: no tag", exiting,
                     entering, "DEBUG_LOW|Outer - [propagating]: no tag", exiting}),
              log.GetLines());
    const std::string text = ReadFile(GetLogFilename());
    std::smatch match;
    ASSERT_TRUE(
        std::regex_search(text, match, std::regex(R"(\.cpp\((\d+)\).*\[Entering\][^]*\.cpp\((\d+)\).*\[Exiting\])")));
    EXPECT_LT(std::stoi(match[1]), std::stoi(match[2])) << "the trace names the lines of the entry and of the exit";
}
