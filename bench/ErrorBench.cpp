// Texts of codes, raising and catching, handling at a boundary: bench_error FOLDER [quick].
#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/ExceptionHandler.h"
#include "ErrorHandlerDll/HalvikException.h"
#include "bench/Harness.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <unistd.h>

namespace
{

constexpr const char* kLocation = "Bench::Open() - ";
constexpr const char* kFileName = "/tmp/reader/page.bin";
constexpr ZelvoReaderErrorCode kRaisedCode = ZR_ERROR_FILE_NOT_FOUND;
constexpr char kRaisedTemplate[] = "The file %s does not exist"; // of kRaisedCode
constexpr int kTextSize = 512;

std::string GetText(ZelvoReaderErrorCode code)
{
    char text[kTextSize] = "";
    int length = kTextSize;
    GetErrorString(code, text, &length);
    return text;
}

template <class Operation>
Case MakeCase(const char* subject, Operation operation)
{
    return {subject, [] {},
            [operation](unsigned count)
            {
                for (unsigned i = 0; i < count; ++i)
                {
                    operation(i);
                }
            },
            [] {
            }};
}

} // namespace

// ---- The limits: the least that does the same work ----
//
// Not in an unnamed namespace: the compiler would fit the functions, and the frames of their callers, to the only arguments
// that they are called with, which it cannot do with a library's.

struct TextTable
{
    TextTable()
    {
        for (int code = 0; code < ZR_ERROR_UNKNOWN_CODE; ++code)
        {
            texts[code] = GetText(static_cast<ZelvoReaderErrorCode>(code));
        }
    }
    [[gnu::noinline]] int Get(unsigned int code, char* buffer, int* length) const
    {
        if (code >= ZR_ERROR_UNKNOWN_CODE)
        {
            return ZR_ERROR_UNKNOWN;
        }
        const std::string& text = texts[code];
        const int room = *length;
        *length = static_cast<int>(text.size()) + 1;
        if (room < *length)
        {
            return ZR_ERROR_STRING_BUFFER_TOO_SMALL;
        }
        std::memcpy(buffer, text.c_str(), text.size() + 1);
        return 0;
    }
    std::string texts[ZR_ERROR_UNKNOWN_CODE];
};

struct BareError
{
    char message[512];
    char location[512];
    int code;
    bool handled;
};
static_assert(sizeof(BareError) == sizeof(HalvikException));

[[gnu::noinline]] void RaiseBareError(const char* location, const char* argument)
{
    auto* const error = new BareError;
    std::snprintf(error->message, sizeof error->message, kRaisedTemplate, argument);
    std::memcpy(error->location, location, std::strlen(location) + 1);
    error->code = kRaisedCode;
    error->handled = false;
    throw error;
}

[[gnu::noinline]] void RaiseSystemError(const char* location, const char* argument)
{
    throw std::system_error(ENOENT, std::generic_category(), std::string(location) + argument);
}

// The last error, three lines in one write, the callback.
class BareBoundary
{
public:
    explicit BareBoundary(const std::string& path) : m_descriptor(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666)) {}

    [[gnu::noinline]] void Handle(const char* functionName, HalvikException& exception)
    {
        const std::string_view message = exception.GetErrorString();
        m_lastErrorCode = exception.GetErrorCode();
        std::memcpy(m_lastError, message.data(), message.size() + 1);
        {
            const std::lock_guard lock(m_mutex);
            m_used = 0;
            PutLine({"----------------------"});
            PutLine({exception.GetLocationString(), message});
            PutLine({functionName, "[caught]: ", message});
            static_cast<void>(!write(m_descriptor, m_block, m_used));
        }
        exception.SetHandled();
        m_callback(m_lastErrorCode, m_lastError, nullptr);
    }
    void SetCallback(ZelvoReaderErrorCallback callback) { m_callback = callback; }

private:
    void Put(std::string_view text) { m_used += text.copy(m_block + m_used, text.size()); }
    void PutLine(std::initializer_list<std::string_view> texts)
    {
        timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        const auto milliseconds = static_cast<unsigned>(now.tv_nsec / 1000000);
        m_prefix[18] = static_cast<char>('0' + milliseconds / 100);
        m_prefix[19] = static_cast<char>('0' + milliseconds / 10 % 10);
        m_prefix[20] = static_cast<char>('0' + milliseconds % 10);
        Put(m_prefix);
        for (const std::string_view text : texts)
        {
            Put(text);
        }
        Put("\n");
    }

    int m_descriptor;
    std::mutex m_mutex;
    ZelvoReaderErrorCode m_lastErrorCode = ZR_ERROR_NONE;
    ZelvoReaderErrorCallback m_callback = nullptr;
    char m_lastError[kTextSize] = "";
    char m_prefix[64] = "16/11/26 15:38:45.000 - ERROR      - [ThreadID: 4711] - ";
    std::size_t m_used = 0;
    char m_block[4096] = "";
};

namespace
{

// ---- The scenarios ----

void LookUp(ZelvoReaderErrorCode code)
{
    char text[kTextSize];
    int length = kTextSize;
    GetErrorString(code, text, &length);
    Keep(text);
}

// Built-in codes are asked for in turn, so that neither caches nor branches know the answer.
void MeasureTexts(unsigned scale)
{
    const unsigned count = 200000 / scale, repetitions = 21 / scale;
    static const TextTable table;
    Measure("text of a built-in code",
            {MakeCase("library", [](unsigned i) { LookUp(static_cast<ZelvoReaderErrorCode>(i % 128)); }),
             MakeCase("limit",
                      [](unsigned i)
                      {
                          char text[kTextSize];
                          int length = kTextSize;
                          table.Get(i % 128, text, &length);
                          Keep(text);
                      }),
             MakeCase("std::error_code",
                      [](unsigned i)
                      {
                          const std::string text =
                              std::error_code(static_cast<int>(i % 128), std::generic_category()).message();
                          Keep(text);
                      })},
            count, repetitions);

    const auto custom = static_cast<ZelvoReaderErrorCode>(ZR_CUSTOM_ERROR_FIRST + 7);
    AddCustomErrorMessage(custom, "The lid is open");
    SetErrorMessage(ZR_ERROR_OCR, "Text recognition failed");
    const auto unknown = static_cast<ZelvoReaderErrorCode>(0x5000);
    const auto structured = static_cast<ZelvoReaderErrorCode>(static_cast<std::int32_t>(0xC0000005u));
    Measure("text of an overridden code", {MakeCase("library", [](unsigned) { LookUp(ZR_ERROR_OCR); })}, count, repetitions);
    Measure("text of a custom code", {MakeCase("library", [=](unsigned) { LookUp(custom); })}, count, repetitions);
    Measure("text of an unknown code", {MakeCase("library", [=](unsigned) { LookUp(unknown); })}, count, repetitions);
    Measure("text of a structured code", {MakeCase("library", [=](unsigned) { LookUp(structured); })}, count / 10,
            repetitions);
    ResetErrorMessages();
}

void MeasureRaise(unsigned scale)
{
    if (GetText(kRaisedCode) != kRaisedTemplate)
    {
        std::fputs("bench_error: the limit raises another text than the library\n", stderr);
        std::exit(EXIT_FAILURE);
    }
    Measure("raise, catch, delete",
            {MakeCase("library",
                      [](unsigned)
                      {
                          try
                          {
                              RaiseError(kRaisedCode, kLocation, kFileName);
                          }
                          catch (HalvikException* exception)
                          {
                              delete exception;
                          }
                      }),
             MakeCase("limit",
                      [](unsigned)
                      {
                          try
                          {
                              RaiseBareError(kLocation, kFileName);
                          }
                          catch (BareError* error)
                          {
                              delete error;
                          }
                      }),
             MakeCase("std::system_error",
                      [](unsigned)
                      {
                          try
                          {
                              RaiseSystemError(kLocation, kFileName);
                          }
                          catch (const std::system_error& error)
                          {
                              Keep(error);
                          }
                      })},
            5000 / scale, 21 / scale);
}

void MeasureHandle(const std::filesystem::path& folder, unsigned scale)
{
    std::filesystem::create_directories(folder);
    static volatile int gErrors = 0;
    const auto callback = [](ZelvoReaderErrorCode, char*, void*)
    {
        gErrors = gErrors + 1;
    };
    static BareBoundary boundary((folder / "bare.log").string());
    boundary.SetCallback(callback);
    ExceptionHandler::SetErrorCallback(callback, nullptr);
    InitialiseLogging(true, ZR_LOG_WARNING, 1, (folder / "bench.log").c_str());
    Measure("handle at a boundary",
            {MakeCase("library",
                      [](unsigned)
                      {
                          HalvikException exception(kRaisedCode, "File not found: /tmp/reader/page.bin", kLocation);
                          ExceptionHandler::HandleHalvikException("Bench::Run() - ", &exception);
                      }),
             MakeCase("limit",
                      [](unsigned)
                      {
                          HalvikException exception(kRaisedCode, "File not found: /tmp/reader/page.bin", kLocation);
                          boundary.Handle("Bench::Run() - ", exception);
                      })},
            3000 / scale, 21 / scale);
    ShutdownLogging();
    std::filesystem::remove_all(folder);
}

} // namespace

int main(int argumentCount, char** arguments)
{
    if (argumentCount < 2)
    {
        std::fputs("usage: bench_error FOLDER [quick]\n", stderr);
        return EXIT_FAILURE;
    }
    const unsigned scale = argumentCount > 2 ? 3 : 1;
    ParkSecondThread();
    MeasureTexts(scale);
    MeasureRaise(scale);
    MeasureHandle(arguments[1], scale);
    std::fflush(stdout);
    _exit(EXIT_SUCCESS); // the parked thread must not hinder the end
}
