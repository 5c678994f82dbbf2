// Reads files with machine-readable zones on several threads and judges each zone. Logs as it goes; never stops at a fault.
#pragma once

#include <string>
#include <vector>

namespace Mrz
{

struct Verdict
{
    bool valid = false;
    std::string text; // one line: "td3.txt, zone 1: TD3 P of UTO, ..." or what is wrong
};

// The verdicts on all files, in the order of `paths` and, within a file, of its zones. A file that holds no zone or cannot
// be read gets one verdict too. Uses up to `threadCount` threads, the calling one included.
std::vector<Verdict> ReadFiles(const std::vector<std::string>& paths, unsigned int threadCount);

} // namespace Mrz
