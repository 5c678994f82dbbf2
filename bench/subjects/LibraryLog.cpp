// This library.
#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "bench/LogSubject.h"

namespace
{

class LibraryLog final : public LogAdapter<LibraryLog>
{
public:
    const char* Name() const override { return "library"; }

    void Open(const std::string& path, std::size_t maxFileSize) override
    {
        LoggingSettings settings = {};
        settings.flushInterval = kLinesPerFlush - 1;
        settings.strategy = maxFileSize > 0 ? LOGGING_STRATEGY_FILE_SIZE : LOGGING_STRATEGY_APPEND;
        settings.maxFileSize = static_cast<std::uint32_t>(maxFileSize);
        InitialiseLogging(true, ZR_LOG_WARNING, 1, path.c_str());
        SetLoggingOptions(&settings);
    }
    void Close() override { ShutdownLogging(); }

    void Line(const std::string& message) { LogMessage(ZR_LOG_WARNING, 1, kSource, message.c_str()); }
    void Formatted(const char* text, int number, unsigned int bits)
    {
        LogFormatted(ZR_LOG_WARNING, 1, kSource, "%s %d %08x", text, number, bits);
    }
    void Filtered(const std::string& message) { LogMessage(ZR_LOG_DEBUG_LOW, 1, kSource, message.c_str()); }
    void Hex(const unsigned char* bytes, int count)
    {
        LogMessageAndBufferAsHex(ZR_LOG_WARNING, 1, kSource, "buffer", bytes, count);
    }
};

const Registration<LibraryLog> gRegistration;

} // namespace
