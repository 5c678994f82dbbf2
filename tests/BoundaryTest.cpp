// Boundary.h: what each kind of exception becomes at each kind of boundary.
#include "ErrorHandlerDll/Boundary.h"

#include <functional>
#include <gtest/gtest.h>
#include <pthread.h>
#include <stdexcept>
#include <thread>
#include <tuple>

namespace
{

void RaiseNotFound()
{
    RaiseError(ZR_ERROR_FILE_NOT_FOUND, "Here - ", "a.txt");
}

// Not a crash: an object like that of a signal handler, caught far from it.
void ThrowStructured()
{
    ucontext_t context = {};
    siginfo_t info = {};
    throw StructuredException(SIGSEGV, &context, &info);
}

std::string Describe(ZelvoReaderErrorCode code, const char* text)
{
    return std::to_string(code) + "|" + text;
}

class Boundary : public testing::Test
{
protected:
    Boundary()
    {
        ExceptionHandler::SetErrorCallback([](auto, auto, void* count) { ++*static_cast<int*>(count); }, &m_reported);
    }
    ~Boundary() override { ExceptionHandler::SetErrorCallback(nullptr, nullptr); }

    int m_reported = 0;
};

TEST_F(Boundary, GivesCodeAndTextOfEachKindAndReportsOnce)
{
    const std::tuple<void (*)(), ZelvoReaderErrorCode, const char*> rows[] = {
        {[] {}, ZR_ERROR_NONE, "none"},
        {RaiseNotFound, ZR_ERROR_FILE_NOT_FOUND, "The file a.txt does not exist"},
        {[] { throw static_cast<HalvikException*>(nullptr); }, ZR_ERROR_UNKNOWN, "An unknown error occurred"},
        {ThrowStructured, ZR_ERROR_SYSTEM, "Segmentation fault"},
        {[] { throw std::bad_alloc(); }, ZR_ERROR_MEMORY_ALLOCATION, "std::bad_alloc"},
        {[] { throw std::logic_error("odd"); }, ZR_ERROR_UNKNOWN, "odd"},
        {[] { throw 1; }, ZR_ERROR_UNKNOWN, "An unknown error occurred"},
    };
    for (const auto& [throwIt, code, text] : rows)
    {
        m_reported = 0;
        testing::internal::CaptureStdout(); // the dumps of the structured one
        const auto raise = [throwIt = throwIt]
        {
            throwIt();
            return Describe(ZR_ERROR_NONE, "none");
        };
        EXPECT_EQ(AtBoundaryOr("A - ", Describe, raise), Describe(code, text));
        const auto raiseWithin = [&raise]
        {
            AtInnerBoundary("C - ", [&] { AtInnerBoundary("D - ", raise); });
        };
        EXPECT_EQ(AtBoundary("B - ", raiseWithin), code) << text;
        EXPECT_EQ(m_reported, code != ZR_ERROR_NONE ? 2 : 0) << text;
        testing::internal::GetCapturedStdout();
    }
}

TEST_F(Boundary, TakesValuesAndFunctionsForErrors)
{
    int target = 5;
    EXPECT_EQ(&AtBoundaryOr("B - ", std::ref(target), [&]() -> int& { throw 1; }), &target);
    EXPECT_EQ(AtBoundaryOr("B - ", std::negate<int>(), []() -> int { throw 1; }), -1);
    EXPECT_EQ(AtInnerBoundary("B - ", [] { return 8; }), 8);
}

TEST_F(Boundary, ContainsWhatTheHandlingThrows)
{
    ExceptionHandler::SetErrorCallback([](auto, auto, auto) { throw 1; }, nullptr);
    EXPECT_EQ(AtBoundary("B - ", RaiseNotFound), ZR_ERROR_IN_EXCEPTION_HANDLER);
    ExceptionHandler::SetErrorCallback([](auto, auto, auto) { RaiseNotFound(); }, nullptr);
    EXPECT_EQ(AtBoundary("B - ", [] { throw 1; }), ZR_ERROR_IN_EXCEPTION_HANDLER);
}

// A boundary that swallows the unwinding makes the C library abort.
TEST_F(Boundary, LetsAThreadBeCancelled)
{
    const auto inner = []
    {
        AtInnerBoundary("C - ", [] { AtBoundaryOr("D - ", 1, []() -> int { pthread_exit(nullptr); }); });
    };
    std::thread([&] { AtBoundary("B - ", inner); }).join();
    EXPECT_EQ(m_reported, 0);
}

} // namespace
