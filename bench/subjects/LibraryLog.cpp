// This library.
#include "bench/subjects/OpenLibraryLog.h"

namespace
{

class LibraryLog final : public LogAdapter<LibraryLog>
{
public:
    const char* Name() const override { return "library"; }

    void Open(const std::string& path, std::size_t maxFileSize) override { OpenLibraryLog(path, maxFileSize); }
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
