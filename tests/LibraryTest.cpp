// The shared library as a process loads it: what it starts with, binds to, and leaves behind. This program exports its
// symbols and does not link the library.
#include "support/LogTest.h"

#include <cstring>
#include <dlfcn.h>

static bool gHostIsCalled = false;

// A host's function of the same name as one of the library, which must not call it in place of its own.
extern "C" bool LogMessage(int, unsigned int, const char*, const char*)
{
    gHostIsCalled = true;
    return false;
}

#define CALL(function) reinterpret_cast<decltype(function)*>(dlsym(library, #function))

TEST(Library, StartsWithTheDefaultsCallsItselfAndUnloadsForGood)
{
    const TemporaryFolder folder;
    std::filesystem::current_path(folder / "");
    void* const library = dlopen(ERRORHANDLERDLL_PATH, RTLD_LAZY | RTLD_GLOBAL);
    ASSERT_NE(nullptr, library) << dlerror();
    LoggingSettings settings = {9, 9, 9, LOGGING_STRATEGY_OVERWRITE, 9, 9};
    CALL(GetLoggingOptions)(&settings);
    const LoggingSettings defaults = {0, 0xFFFFFFFF, 100, LOGGING_STRATEGY_APPEND, 0, 0};
    EXPECT_EQ(0, std::memcmp(&defaults, &settings, sizeof settings)) << testing::PrintToString(settings);
    EXPECT_STREQ("ZelvoReader.log", CALL(GetLogFilename)());
    EXPECT_TRUE(CALL(LogMessage)(0, ~0u, "", "dropped"));
    EXPECT_FALSE(std::filesystem::exists("ZelvoReader.log"));

    CALL(InitialiseLogging)(true, 3, 1, (folder / "app.log").c_str());
    CALL(LogWarning)(0, "Main - ", "text");
    EXPECT_FALSE(gHostIsCalled);
    EXPECT_EQ("", ReadFile(folder / "app.log"));
    dlclose(library);
    EXPECT_EQ(nullptr, dlopen(ERRORHANDLERDLL_PATH, RTLD_NOW | RTLD_NOLOAD));
    EXPECT_EQ("Main - An unknown warning occured - text", ParseLog(ReadFile(folder / "app.log")).at(0).m_text);
    EXPECT_EQ(0, RunChild([] { return 0; })) << "a fork runs handlers that are gone";
}
