// Numbered lines, and what became of them on disk.
#ifndef FAULT_HARNESS_ORACLE_H
#define FAULT_HARNESS_ORACLE_H

#include <cstddef>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

// The text of one line; its length depends on the number, so that lines end at every place in a block.
std::string LineText(int writer, int number);

struct Verdict
{
    std::map<int, std::vector<int>> m_numbers; // of each writer, in the order of the files
    std::map<int, std::vector<std::string>> m_prefixes;
    int m_lines = 0;
    int m_empty = 0;    // empty lines
    int m_torn = 0;     // neither a whole line nor one of the subject's own
    int m_joined = 0;   // of those, lines in which another one starts
    int m_doubled = 0;  // whole lines that are there once already
    int m_openEnds = 0; // files that end without a line feed; what stands behind the last one counts nowhere else
    std::string m_firstTorn;

    bool IsWhole() const { return HasWholeLines() && m_empty == 0; }
    bool HasWholeLines() const { return m_torn == 0 && m_doubled == 0 && m_openEnds == 0; }
    bool Has(int writer, int number) const;
    int Lost(int writer, int count) const; // of the lines 0 to count - 1
};

// Reads all regular files of the folder.
Verdict Judge(const std::filesystem::path& folder);

// A folder in the one that FAULTS_FOLDER names, or else in /dev/shm, that is removed with its contents.
class ScratchFolder
{
public:
    ScratchFolder();
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    std::string Path() const { return m_path.string(); }

private:
    std::filesystem::path m_path;
};

// Memory that a child shares with its parent; zero at first.
void* SharedMemory(std::size_t size);

// Runs `body` in a child that is killed when it hangs. Returns the wait status.
int RunChild(const std::function<void()>& body, unsigned int timeoutSeconds = 30);

// Formats the figures of a row.
std::string Figures(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Writes one row of the result. A row of a peer never fails.
//   returns whether the program may go on to succeed
bool Report(const std::string& name, bool kept, const std::string& figures);

#endif
