#include "ErrorHandlerDll/crash/DumpOutput.h"

#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/crash/Dump.h"
#include "ErrorHandlerDll/logging/ProcessLog.h"
#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <poll.h>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

namespace Crash
{

namespace
{

constinit std::atomic<bool> gLogIsDamaged = false;

} // namespace

void LogLine(const char* text, const char* source)
{
    LogLine(ZR_LOG_ERROR, ZR_LOG_ALL_CATEGORIES, source, text);
}

void LogLine(int level, unsigned int mask, const char* source, const char* text)
{
    const auto log = [=]
    {
        LogMessage(level, mask, source, text);
    };
    if (gLogIsDamaged.load(std::memory_order_relaxed) || Dump::RunPart(log))
    {
        return;
    }
    gFileLogger.Emergency()
        .ForgetStrategy(); // lies on the heap, which is what is damaged as a rule; an open file does without
    if (!Dump::RunPart(log))
    {
        gLogIsDamaged.store(true, std::memory_order_relaxed);
    }
}

} // namespace Crash

namespace Crash::StandardOutput
{

namespace
{

constinit std::atomic<bool> gIsGivenUp = false;
constinit std::atomic<bool> gMayBlock = true;
constinit std::atomic<int> gWaitLeftMs = QV::EmergencyScope::kMaxWaitMs; // of all lines together

// Lines that wait. What a pipe takes in one piece.
constinit char gLines[PIPE_BUF] = {};
constinit std::size_t gLinesEnd = 0;
constinit std::atomic<bool> gAreLinesInUse = false; // a watchdog's handler that dumps may interrupt the dump
[[gnu::tls_model("initial-exec")]] constinit thread_local bool tHoldsLines = false;

// A pipe that is ready takes this many bytes without blocking.
constexpr std::size_t kUnblockedSize = PIPE_BUF;

// Asked once a dump, where a fault is caught: a process that crashes may have overwritten `stdout` itself. Negative for a
// stream without one.
constinit std::atomic<int> gDescriptor = STDOUT_FILENO;

int GetDescriptor() noexcept
{
    return gDescriptor.load(std::memory_order_relaxed);
}

// Signals that interrupt the wait are no reason to give up, and a reader that is slow but alive must not stretch it. Where
// one cannot wait, as without any descriptor left, the write itself has to tell.
bool WaitUntilReady(int descriptor) noexcept
{
    if (!gMayBlock.load(std::memory_order_relaxed))
    {
        return true;
    }
    int result = 0;
    do
    {
        pollfd watched = {descriptor, POLLOUT, 0};
        const std::int64_t start = ZelvoWinAPI::GetTickCount64();
        const int left = std::max(gWaitLeftMs.load(std::memory_order_relaxed), 0);
        result = static_cast<int>(syscall(SYS_poll, &watched, 1, left)); // poll() may end a cancelled thread
        gWaitLeftMs.fetch_sub(static_cast<int>(ZelvoWinAPI::GetTickCount64() - start), std::memory_order_relaxed);
    } while (result < 0 && errno == EINTR && gWaitLeftMs.load(std::memory_order_relaxed) > 0);
    const bool isReady = result > 0 || (result < 0 && errno != EINTR);
    gIsGivenUp.store(!isReady, std::memory_order_relaxed);
    return isReady;
}

// What was ready a moment ago may have been filled by another writer: this must not block where the kernel can do without.
std::ptrdiff_t WriteReady(int descriptor, std::string_view text) noexcept
{
    if (gMayBlock.load(std::memory_order_relaxed))
    {
        const iovec piece = {const_cast<char*>(text.data()), text.size()};
        const std::ptrdiff_t written = syscall(SYS_pwritev2, descriptor, &piece, 1, -1L, -1L, RWF_NOWAIT);
        if (written >= 0 || errno == EAGAIN || errno == EINTR)
        {
            return written;
        }
    }
    return ZelvoWinAPI::WriteFile(descriptor, text.data(), text.size());
}

// Writes the text, as far as it can be written.
void Write(int descriptor, std::string_view text) noexcept
{
    while (!text.empty() && !gIsGivenUp.load(std::memory_order_relaxed) && WaitUntilReady(descriptor))
    {
        const std::ptrdiff_t count = WriteReady(descriptor, text.substr(0, kUnblockedSize));
        if (count < 0 && errno == EAGAIN)
        {
            gWaitLeftMs.fetch_sub(1, std::memory_order_relaxed); // others may go on filling it for ever
        }
        else if (count == 0 || (count < 0 && errno != EINTR))
        {
            return;
        }
        text.remove_prefix(static_cast<std::size_t>(std::max<std::ptrdiff_t>(count, 0)));
    }
}

} // namespace

void Prepare() noexcept
{
    const int descriptor = fileno(stdout); // takes no lock
    gDescriptor.store(descriptor, std::memory_order_relaxed);
    if (descriptor < 0)
    {
        return;
    }
    struct stat status = {};
    gMayBlock.store(fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode), std::memory_order_relaxed);

    // Whoever else holds the stream's lock writes the buffer himself; this thread may hold it, too, in the middle of a
    // printf.
    if (ftrylockfile(stdout) == 0)
    {
        const char* const start = stdout->_IO_write_base;
        const char* const end = stdout->_IO_write_ptr;
        if (start != nullptr && start < end && end <= stdout->_IO_buf_end)
        {
            Write(descriptor, std::string_view(start, static_cast<std::size_t>(end - start)));
            __fpurge(stdout);
        }
        funlockfile(stdout);
    }
}

void HoldLines() noexcept
{
    tHoldsLines = true;
}

void WriteLines() noexcept
{
    if (tHoldsLines && !gAreLinesInUse.exchange(true))
    {
        const std::size_t length = gLinesEnd;
        gLinesEnd = 0; // first: a jump out of here must not write them again
        Write(GetDescriptor(), {gLines, length});
        gAreLinesInUse.store(false);
    }
}

void ReleaseLines() noexcept
{
    tHoldsLines = false;
}

void Recover() noexcept
{
    if (tHoldsLines)
    {
        gAreLinesInUse.store(false);
    }
}

void Forget() noexcept
{
    gLinesEnd = 0;
    gAreLinesInUse.store(false);
}

namespace
{

bool Hold(std::string_view line) noexcept
{
    if (line.size() >= sizeof gLines - gLinesEnd || gAreLinesInUse.exchange(true))
    {
        return false;
    }
    line.copy(gLines + gLinesEnd, line.size());
    gLines[gLinesEnd + line.size()] = '\n';
    gLinesEnd += line.size() + 1;
    gAreLinesInUse.store(false);
    return true;
}

} // namespace

void PrintLine(std::string_view line) noexcept
{
    const int descriptor = GetDescriptor();
    if (descriptor < 0)
    {
        if (ftrylockfile(stdout) == 0)
        {
            fwrite_unlocked(line.data(), 1, line.size(), stdout);
            putc_unlocked('\n', stdout);
            funlockfile(stdout);
        }
        return;
    }
    if (tHoldsLines && (Hold(line) || (WriteLines(), Hold(line))))
    {
        return;
    }
    Write(descriptor, line);
    Write(descriptor, "\n");
}

} // namespace Crash::StandardOutput
