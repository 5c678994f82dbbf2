// What the cases are run on. Each program is linked with one subject: the library, or a peer where the case applies to it.
#ifndef FAULT_HARNESS_SUBJECT_H
#define FAULT_HARNESS_SUBJECT_H

#include <cstddef>
#include <string>
#include <string_view>

namespace Subject
{

extern const char* const kName;
extern const bool kIsLibrary; // whose promises make a case fail; a peer's figures are only shown
extern const bool kRotates;   // to files whose names it chooses by size

inline int gLinesPerFlush = 10; // taken when a log is started

// Starts a log in the folder: one file that is appended to, or files that are changed at a size.
void Open(const std::string& folder, std::size_t maxFileSize);

// Returns what the subject says about the line: whether it was taken. Peers say nothing, which counts as yes.
bool Log(const char* text);

void Flush();
void Close(); // the next line opens the log again, if the subject can

// The length of the prefix that a line starts with; npos when it does not start with one.
std::size_t PrefixLength(std::string_view line);

// Whether a subject's own lines, such as a heading, look like this.
bool IsOwnLine(std::string_view line);

} // namespace Subject

// Matches the start of `line` with a form in which 0 is a digit, # one or more digits, * a capital or blank padded level of
// ten characters; all else stands for itself. Returns the length matched, or npos.
std::size_t MatchForm(std::string_view line, std::string_view form);

#endif
