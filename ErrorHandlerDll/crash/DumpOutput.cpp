#include "ErrorHandlerDll/crash/DumpOutput.h"

#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Crash
{

namespace
{

// A reader who was waited for in vain is not waited for again, until it is seen to read.
constinit std::atomic<bool> gIsReaderStuck = false;

} // namespace

StandardOutput::StandardOutput() noexcept : m_waitLeftMs(gIsReaderStuck.load() ? 0 : kMaxWaitMs) {}

StandardOutput::~StandardOutput()
{
    if (m_isReopened)
    {
        ZelvoWinAPI::CloseFile(m_descriptor);
    }
}

void StandardOutput::Prepare() noexcept
{
    m_descriptor = fileno(stdout); // takes no lock
    if (m_descriptor < 0)
    {
        return;
    }
    struct stat status = {};
    m_mayBlock = fstat(m_descriptor, &status) != 0 || !S_ISREG(status.st_mode);
    if (m_mayBlock)
    {
        ReopenWithoutBlocking();
    }

    // Whoever else holds the stream's lock writes the buffer himself; this thread may hold it, too, in the middle of a
    // printf.
    if (ftrylockfile(stdout) == 0)
    {
        const char* const start = stdout->_IO_write_base;
        const char* const end = stdout->_IO_write_ptr;
        if (start != nullptr && start < end && end <= stdout->_IO_buf_end)
        {
            const std::string_view rest = Write({start, static_cast<std::size_t>(end - start)});
            std::memmove(stdout->_IO_write_base, rest.data(), rest.size()); // stdio's to write, when there is a reader
            stdout->_IO_write_ptr = stdout->_IO_write_base + rest.size();
        }
        funlockfile(stdout);
    }
}

// What is ready may be filled by another writer a moment later, and a write then blocks. Whether it does is a property of
// the open file that other processes share, so this one opens a pipe or terminal of its own.
void StandardOutput::ReopenWithoutBlocking() noexcept
{
    char path[32];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", m_descriptor);
    const long own = syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    m_isReopened = own >= 0;
    m_descriptor = m_isReopened ? static_cast<int>(own) : m_descriptor;
}

// Signals that interrupt the wait are no reason to give up, and a reader that is slow but alive must not stretch it. Where
// one cannot wait, as without any descriptor left, the write itself has to tell.
bool StandardOutput::WaitUntilReady() noexcept
{
    int result = m_mayBlock ? -1 : 1;
    for (bool isCutShort = m_mayBlock; isCutShort; isCutShort = result < 0 && errno == EINTR && m_waitLeftMs > 0)
    {
        pollfd watched = {m_descriptor, POLLOUT, 0};
        const std::int64_t start = ZelvoWinAPI::GetTickCount64();
        result = static_cast<int>(syscall(SYS_poll, &watched, 1, std::max(m_waitLeftMs, 0))); // poll() may end the thread
        m_waitLeftMs -= static_cast<int>(ZelvoWinAPI::GetTickCount64() - start);
    }
    m_isGivenUp = result == 0 || (result < 0 && errno == EINTR);
    gIsReaderStuck.store(m_isGivenUp);
    return !m_isGivenUp;
}

// Writes the text, as far as it can be written, and returns the rest.
std::string_view StandardOutput::Write(std::string_view text) noexcept
{
    while (!text.empty() && !m_isGivenUp && WaitUntilReady())
    {
        const auto count = ZelvoWinAPI::WriteFile(m_descriptor, text.data(), std::min(text.size(), sizeof m_lines));
        if (count < 0 && errno == EAGAIN)
        {
            --m_waitLeftMs; // others may go on filling it for ever
        }
        else if (count == 0 || (count < 0 && errno != EINTR))
        {
            return text;
        }
        text.remove_prefix(static_cast<std::size_t>(std::max<std::ptrdiff_t>(count, 0)));
    }
    return text;
}

void StandardOutput::WriteLines() noexcept
{
    const std::size_t length = m_used;
    m_used = 0; // first: a jump out of here must not write them again
    Write({m_lines, length});
}

bool StandardOutput::Hold(std::string_view line) noexcept
{
    if (line.size() >= sizeof m_lines - m_used)
    {
        return false;
    }
    line.copy(m_lines + m_used, line.size());
    m_lines[m_used + line.size()] = '\n';
    m_used += line.size() + 1;
    return true;
}

void StandardOutput::PrintLine(std::string_view line) noexcept
{
    if (m_descriptor < 0)
    {
        if (ftrylockfile(stdout) == 0)
        {
            fwrite_unlocked(line.data(), 1, line.size(), stdout);
            putc_unlocked('\n', stdout);
            funlockfile(stdout);
        }
        return;
    }
    if (Hold(line) || (WriteLines(), Hold(line)))
    {
        return;
    }
    Write(line);
    Write("\n");
}

} // namespace Crash
