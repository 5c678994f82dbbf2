// The one seam to the platform, in the shape of the kit's portability layer: what of it the library calls, written for
// Linux, compiled into the library and hidden.
#ifndef ZELVOWINAPI_ZELVOWINAPI_H
#define ZELVOWINAPI_ZELVOWINAPI_H

#include <atomic>
#include <cstddef>
#include <cstdint>

struct iovec;

namespace ZelvoWinAPI
{

// ---- Threads ----

// The kernel's thread id, cached per thread, right in a forked child too.
inline std::uint32_t GetCurrentThreadId() noexcept;

// Milliseconds since some moment in the past; never goes back. Async-signal-safe.
std::int64_t GetTickCount64() noexcept;

// Async-signal-safe; leaves errno alone. A signal cuts it short.
void Sleep(int milliseconds) noexcept;

// ---- Critical sections ----

// Recursive lock. Owner and lock are one atomic word, so there is no moment at which it is locked by nobody: a signal
// handler can always tell whether the thread that it interrupted is inside.
struct _CRITICAL_SECTION
{
    std::atomic<std::uint32_t> m_ownerWord; // 0: free; else the owner's thread id, with kWaitersBit when others sleep on it
    std::uint32_t m_enterCount;             // how often the owner is inside beyond the first; touched by the owner only
    std::atomic<std::int64_t> m_leaseEnd;   // tick count; 0 without a lease
    std::atomic<std::uintptr_t> m_leaseLow; // of the stack that the owner's code runs on: [low, high)
    std::atomic<std::uintptr_t> m_leaseHigh;
};

enum class Entry
{
    REFUSED,
    ENTERED,
    TAKEN_OVER, // from an owner whose lease is over: what the section guards may be half changed
};

void InitializeCriticalSection(_CRITICAL_SECTION* section) noexcept;

// Leaves the section free. A thread that comes too late may still enter and leave it.
void DeleteCriticalSection(_CRITICAL_SECTION* section) noexcept;

// Two atomic operations and no call, when nobody else is inside.
inline Entry EnterCriticalSection(_CRITICAL_SECTION* section) noexcept;
inline void LeaveCriticalSection(_CRITICAL_SECTION* section) noexcept; // nothing when another thread has taken it over

// Enters the section if it is free or becomes free within the time. Async-signal-safe, also when the interrupted code of
// this thread is inside.
//   waitLeftMs  in: how long to wait at most, in milliseconds; out: less what was waited, for callers that may wait so
//               long in all
Entry TryEnterCriticalSection(_CRITICAL_SECTION* section, int& waitLeftMs) noexcept;

// A lease is for an owner that may leave its code by a jump and the section with it, as a dump can that faults. While it
// lasts, only code on the stack [low, high) is taken for the owner: on another one the thread that owns the section enters
// it afresh. So do other threads when its time is over.
//   lease    in: what the call before gave, 0 for the first; out: what the next one and EndLease take
//   returns  false when the section is another thread's by now
bool SetLease(_CRITICAL_SECTION* section, std::uintptr_t low, std::uintptr_t high, int milliseconds,
              std::int64_t& lease) noexcept;
void EndLease(_CRITICAL_SECTION* section, std::int64_t lease) noexcept;

// Whether the calling thread is inside.
bool IsInCriticalSection(const _CRITICAL_SECTION* section) noexcept;

// In a forked child, whose forking thread held the section: makes that thread its owner under its new id and forgets the
// waiters, who exist in the parent only.
void AdoptCriticalSection(_CRITICAL_SECTION* section) noexcept;

// ---- Files ----
//
// None of these is a cancellation point: a cancelled thread must not vanish between a write and the note that it was made.

// Opens `path` with the flags of open(2), the mode 0666 for a new file, and close-on-exec set. The descriptor is above those
// of standard input, output and error, so that a host which closed one of them does not print into the file.
//   returns the descriptor, or -1 with errno set
int OpenFile(const char* path, int flags) noexcept;

// Whether the descriptor is open, and as OpenFile has opened it with these flags: another file under its number has others.
bool IsOpenFile(int descriptor, int flags) noexcept;

// One write(2). Returns the bytes written, or -1 with errno set.
std::ptrdiff_t WriteFile(int descriptor, const void* bytes, std::size_t size) noexcept;

// One pread(2). Returns the bytes read, or -1 with errno set.
std::ptrdiff_t ReadFile(int descriptor, void* bytes, std::size_t size, std::int64_t position) noexcept;

// One writev(2) of `count` pieces, write(2) for a single one, which is faster. Returns the bytes written, or -1 with errno
// set.
std::ptrdiff_t WritePieces(int descriptor, const ::iovec* pieces, int count) noexcept;

// Waits until the file takes bytes again, which it could not (EAGAIN).
//   waitLeftMs  in: how long to wait at most, in milliseconds; out: less what was waited; null: as long as it takes
//   returns     whether to try again
bool WaitUntilWritable(int descriptor, int* waitLeftMs) noexcept;

void CloseFile(int descriptor) noexcept;

// ---- File search ----

struct _FILETIME
{
    std::uint32_t dwLowDateTime;
    std::uint32_t dwHighDateTime;
};

constexpr std::uint32_t FILE_ATTRIBUTE_DIRECTORY = 0x10;
constexpr std::size_t MAX_PATH = 260; // holds the longest name of a Linux directory entry, 255 bytes

// Of the fields before the name only the directory attribute is filled; the others are zero, as nobody here pays for a stat
// of each entry. The fields behind the name belong to the search: it lives in the record and needs no heap, so that a dump
// can search for its log file too.
struct _WIN32_FIND_DATA
{
    static constexpr std::size_t kEntriesSize = 4096; // some hundred entries a system call; also holds the longest path
    static constexpr std::size_t kPatternSize = 512;  // a pattern is a name of up to 255 bytes and wildcards

    std::uint32_t dwFileAttributes;
    _FILETIME ftCreationTime;
    _FILETIME ftLastAccessTime;
    _FILETIME ftLastWriteTime;
    std::uint32_t nFileSizeHigh;
    std::uint32_t nFileSizeLow;
    std::uint32_t dwReserved0;
    std::uint32_t dwReserved1;
    char cFileName[MAX_PATH]; // name of the entry without its directory, NUL-terminated

    int m_directory;
    int m_entriesAt;   // bytes of m_entries that have been looked at
    int m_entriesUsed; // bytes of m_entries that hold entries
    char m_pattern[kPatternSize];
    alignas(8) char m_entries[kEntriesSize];
};

static_assert(offsetof(_WIN32_FIND_DATA, cFileName) == 44, "the leading fields follow the Win32 record");

// Starts a search. `pattern` is a path whose last component may hold `*`, which matches any run of characters, empty and
// dots included; every other character stands for itself. Entries of any kind are found, "." and ".." included, in the order
// of the directory. `data` holds the first entry, and the search until FindClose: use the same record with FindNextFile.
//   returns a handle for FindClose; null when nothing matches, the directory cannot be read, or the pattern is too long
//   signals async-signal-safe
void* FindFirstFile(const char* pattern, _WIN32_FIND_DATA* data) noexcept;

// Returns non-zero with the next entry in `data`, 0 when there is none left.
int FindNextFile(void* handle, _WIN32_FIND_DATA* data) noexcept;

void FindClose(void* handle) noexcept;

// Whether `path` names a directory (symbolic links are followed).
bool IsDirectory(const char* path) noexcept;

// ---- Numbers ----

// Writes `value` in decimal with its NUL to `buffer`, which must have room for 12 bytes. Any other `radix` than 10 gives the
// empty text. Returns `buffer`.
char* itoa(int value, char* buffer, int radix) noexcept;

} // namespace ZelvoWinAPI

#include "ZelvoWinAPI/CriticalSection.h"

#endif
