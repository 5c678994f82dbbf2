// The pattern for functions that a library exports to applications: nothing is thrown through them, and whatever happens
// inside becomes a code, a block in boundary.log and one call of the error callback. Every exported function goes through
// AtBoundary, so the catch clauses are written once.
#include <ErrorHandlerDll/ErrorHandlerDll.h>
#include <ErrorHandlerDll/ExceptionHandler.h>
#include <ErrorHandlerDll/HalvikException.h>
#include <ErrorHandlerDll/LinuxStructuredException.h>

#include <cstdio>
#include <new>
#include <stdexcept>

namespace
{

template <typename Body>
ZelvoReaderErrorCode AtBoundary(const char* name, Body body)
{
    try
    {
        body();
        return ZR_ERROR_NONE; // the last error stays: it is that of the last failure
    }
    catch (HalvikException* exception)
    {
        ExceptionHandler::HandleHalvikException(name, exception);
        const ZelvoReaderErrorCode code = exception->GetErrorCode();
        delete exception;
        return code;
    }
    catch (StructuredException& exception)
    {
        ExceptionHandler::HandleStructuredException(name, exception, false);
        return ZR_ERROR_SYSTEM; // its own code is a signal's, not one of the catalogue
    }
    catch (std::bad_alloc& exception) // before std::exception, from which it derives
    {
        ExceptionHandler::HandleBadAllocException(name, exception, false);
        return ZR_ERROR_MEMORY_ALLOCATION;
    }
    catch (std::exception& exception)
    {
        ExceptionHandler::HandleSTDException(name, exception, false);
        return ZR_ERROR_UNKNOWN;
    }
    catch (...)
    {
        ExceptionHandler::HandleUnknownException(name, false);
        return ZR_ERROR_UNKNOWN;
    }
}

// Two functions of a library's interface.

ZelvoReaderErrorCode ReadPage(int page)
{
    return AtBoundary("ReadPage() - ",
                      [page]
                      {
                          if (page < 1)
                          {
                              RaiseError(ZR_ERROR_INDEX_OUT_OF_BOUNDS, "Scanner(31) : ReadPage() - ", "page", page, 1, 9);
                          }
                      });
}

ZelvoReaderErrorCode ParsePage(const char* text)
{
    return AtBoundary("ParsePage() - ",
                      [text]
                      {
                          if (*text == '\0')
                          {
                              throw std::runtime_error("empty page");
                          }
                      });
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
                            ParsePage("") == ZR_ERROR_UNKNOWN && reported == 2;
    return asExpected ? 0 : 1;
}
