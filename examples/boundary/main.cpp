// The pattern for functions that a library exports to applications: nothing is thrown through them, and whatever happens
// inside becomes a code, a block in boundary.log and one call of the error callback. Every exported function goes through a
// boundary, so nobody writes catch clauses.
#include <ErrorHandlerDll/Boundary.h>
#include <ErrorHandlerDll/Log.h>

#include <cstdio>
#include <stdexcept>
#include <string>

namespace
{

// Three functions of a library's interface.

ZelvoReaderErrorCode ReadPage(int page)
{
    return AtBoundary(ZR_HERE,
                      [page]
                      {
                          if (page < 1)
                          {
                              RaiseError(ZR_ERROR_INDEX_OUT_OF_BOUNDS, ZR_HERE, "page", page, 1, 9);
                          }
                      });
}

ZelvoReaderErrorCode ParsePage(const char* text)
{
    return AtBoundary(ZR_HERE,
                      [text]
                      {
                          if (*text == '\0')
                          {
                              throw std::runtime_error("empty page");
                          }
                      });
}

// Not every function returns a code: here it is the value that stands for an error.
int CountLines(const std::string& page, std::size_t start)
{
    return AtBoundaryOr(ZR_HERE, -1, [&] { return page.at(start) == '\n' ? 0 : 1; });
}

void ReportError(ZelvoReaderErrorCode code, char* message, void* param)
{
    std::printf("callback: %d, %s\n", code, message);
    ++*static_cast<int*>(param);
}

} // namespace

int main()
{
    int reported = 0;
    InitialiseLogging(true, ZR_LOG_DEBUG_LOW, ZR_LOG_ALL_CATEGORIES, "boundary.log");
    ExceptionHandler::SetErrorCallback(ReportError, &reported);

    const bool asExpected = ReadPage(1) == ZR_ERROR_NONE && ReadPage(0) == ZR_ERROR_INDEX_OUT_OF_BOUNDS &&
                            ParsePage("") == ZR_ERROR_UNKNOWN && CountLines("text", 0) == 1 && CountLines("text", 9) == -1 &&
                            reported == 3;
    return asExpected ? 0 : 1;
}
