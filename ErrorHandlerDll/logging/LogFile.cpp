#include "ErrorHandlerDll/logging/LogFile.h"

#include "ZelvoWinAPI/ZelvoWinAPI.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>
#include <utility>

namespace
{

// A regular file takes no notice of O_NONBLOCK; all others must be able to stop taking bytes without stopping the caller.
// The flags tell, too, whether a number is still this file's: a host that has closed it may have opened another one.
constexpr int kFlags = O_RDWR | O_CREAT | O_APPEND | O_NONBLOCK | O_NOCTTY;

iovec ToVector(std::string_view text)
{
    return {const_cast<char*>(text.data()), text.size()};
}

// The one loop that writes. `beginsWithLineFeed` is set false when the line feed is in the file.
//   returns 0, or the error that ended it
int Write(int descriptor, LogFile::Pieces pieces, std::atomic<std::size_t>& written, bool& beginsWithLineFeed,
          int* waitLeftMs)
{
    for (;;)
    {
        iovec vectors[LogFile::kMaxPieces + 1];
        int count = 0;
        if (beginsWithLineFeed)
        {
            vectors[count++] = ToVector("\n");
        }
        const int first = count;
        std::size_t skipped = written.load(std::memory_order_relaxed);
        for (const std::string_view piece : pieces)
        {
            const std::size_t inFile = std::min(skipped, piece.size());
            skipped -= inFile;
            if (inFile < piece.size())
            {
                vectors[count++] = ToVector(piece.substr(inFile));
            }
        }
        if (count == first)
        {
            return 0;
        }
        std::ptrdiff_t size = ZelvoWinAPI::WritePieces(descriptor, vectors, count);
        if (size > 0)
        {
            size -= std::exchange(beginsWithLineFeed, false) ? 1 : 0;
            written.store(written.load(std::memory_order_relaxed) + static_cast<std::size_t>(size),
                          std::memory_order_release);
        }
        else if (size == 0)
        {
            return EIO;
        }
        else if (errno == EAGAIN ? !ZelvoWinAPI::WaitUntilWritable(descriptor, waitLeftMs) : errno != EINTR)
        {
            return errno;
        }
    }
}

} // namespace

void LogFile::SetName(const LogPath& name)
{
    if (std::string_view(name) != GetName())
    {
        const unsigned int unused = 1 - m_nameInUse.load(std::memory_order_relaxed);
        m_names[unused] = name;
        m_nameInUse.store(unused, std::memory_order_release);
    }
}

std::int64_t LogFile::Open(bool empties)
{
    const int truncation = empties && !m_wasClosedByHost ? O_TRUNC : 0;
    const int descriptor = ZelvoWinAPI::OpenFile(GetName().GetData(), kFlags | truncation);
    m_descriptor.store(descriptor, std::memory_order_relaxed);
    if (descriptor < 0)
    {
        return 0;
    }
    m_wasClosedByHost = false;
    return LookAtEnd();
}

std::int64_t LogFile::LookAtEnd()
{
    m_endsInsideLine = EndsInsideLine(false);
    return std::max<std::int64_t>(GetSize(), 0) + (m_endsInsideLine ? 1 : 0);
}

std::int64_t LogFile::GetSize() const
{
    struct stat status = {};
    return fstat(GetDescriptor(), &status) == 0 && S_ISREG(status.st_mode) ? status.st_size : -1;
}

void LogFile::Close()
{
    m_wasClosedByHost = false;
    const int descriptor =
        m_descriptor.exchange(-1); // first: a dump must not take a number for ours that is another's by then
    if (ZelvoWinAPI::IsOpenFile(descriptor, kFlags))
    {
        ZelvoWinAPI::CloseFile(descriptor);
    }
}

bool LogFile::WriteAll(Pieces pieces, std::atomic<std::size_t>& written, int* waitLeftMs)
{
    for (int attempt = 0; attempt < 2; ++attempt)
    {
        const bool isOurs = ZelvoWinAPI::IsOpenFile(GetDescriptor(), kFlags);
        const int error = isOurs ? Write(GetDescriptor(), pieces, written, m_endsInsideLine, waitLeftMs) : EBADF;
        if (error == 0)
        {
            return true;
        }
        if (error == EBADF && IsOpen())
        {
            m_descriptor.store(-1, std::memory_order_relaxed);
            m_wasClosedByHost = true;
        }
        EndOnWholeLine(pieces, written);
        if (!m_wasClosedByHost)
        {
            return false;
        }
        Open(false);
    }
    return false;
}

bool LogFile::WriteBesideOwner(Pieces pieces, int* waitLeftMs) const
{
    std::atomic<std::size_t> written = 0;
    bool beginsWithLineFeed = EndsInsideLine(false);
    return ZelvoWinAPI::IsOpenFile(GetDescriptor(), kFlags) &&
           Write(GetDescriptor(), pieces, written, beginsWithLineFeed, waitLeftMs) == 0;
}

void LogFile::EndOnWholeLine(Pieces pieces, std::atomic<std::size_t>& written)
{
    const std::size_t end = written.load(std::memory_order_relaxed);
    const std::size_t lineStart = pieces.size() > 1 ? 0 : pieces[0].substr(0, end).rfind('\n') + 1; // npos + 1 is 0
    const std::string_view torn = pieces[0].substr(lineStart);
    written.store(lineStart, std::memory_order_release);
    if (end > lineStart && !TakeBack(pieces.size() > 1 ? pieces : Pieces(&torn, 1), end - lineStart))
    {
        m_endsInsideLine = EndsInsideLine(true);
    }
}

std::int64_t LogFile::GetPosition() const
{
    return lseek(GetDescriptor(), 0, SEEK_CUR);
}

// Whether `text` stands in the file right before the position `end`.
bool LogFile::HoldsBefore(std::int64_t end, std::string_view text) const
{
    char bytes[256];
    std::int64_t position = end - static_cast<std::int64_t>(text.size());
    while (position >= 0 && !text.empty())
    {
        const std::size_t size = std::min(text.size(), sizeof bytes);
        if (ZelvoWinAPI::ReadFile(GetDescriptor(), bytes, size, position) != static_cast<std::ptrdiff_t>(size) ||
            std::memcmp(bytes, text.data(), size) != 0)
        {
            return false;
        }
        text.remove_prefix(size);
        position += static_cast<std::int64_t>(size);
    }
    return position >= 0;
}

bool LogFile::EndsInsideLine(bool ifUnknown) const
{
    char last = '\n';
    const std::int64_t size = GetSize();
    return size < 0 ? ifUnknown
                    : size > 0 && ZelvoWinAPI::ReadFile(GetDescriptor(), &last, 1, size - 1) == 1 && last != '\n';
}

bool LogFile::TakeBack(Pieces pieces, std::size_t size) const
{
    std::int64_t end = GetSize() - static_cast<std::int64_t>(size); // below 0 for what is no regular file
    const std::int64_t start = end;
    for (std::string_view piece : pieces)
    {
        piece = piece.substr(0, size);
        size -= piece.size();
        end += static_cast<std::int64_t>(piece.size());
        if (!HoldsBefore(end, piece))
        {
            return false;
        }
    }
    return ftruncate(GetDescriptor(), start) == 0;
}
