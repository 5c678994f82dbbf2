// Reads files with machine-readable zones on several threads and judges each zone. Logs as it goes; never stops at a fault.
#pragma once

#include <ErrorHandlerDll/ErrorCodes.h>

#include <string>
#include <vector>

namespace Mrz
{

struct Verdict
{
    bool valid = false;
    std::string text; // one line: "td3.txt, zone 1: valid - TD3 P of UTO, ..." or what is wrong
};

struct FileResult
{
    // An error when the file could not be read or holds no zone. No heap behind the text: memory may just have run out.
    ZelvoReaderErrorCode code = ZR_ERROR_NONE;
    char text[512] = "";
    std::vector<Verdict> verdicts; // one for each zone
};

// The results of all files, in the order of `paths`. Uses up to `threadCount` threads, the calling one included.
std::vector<FileResult> ReadFiles(const std::vector<std::string>& paths, unsigned int threadCount);

} // namespace Mrz
