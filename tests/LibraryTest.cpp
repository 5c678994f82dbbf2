// The shared library as a process loads it: what it starts with, binds to, and leaves behind. This program exports its
// symbols and does not link the library.
#include "support/LogTest.h"

#include <dlfcn.h>

namespace
{

bool gHostIsCalled = false;

class Library
{
public:
    Library() : m_handle(dlopen(ERRORHANDLERDLL_PATH, RTLD_LAZY | RTLD_GLOBAL))
    {
        EXPECT_NE(nullptr, m_handle) << dlerror();
    }
    ~Library() { dlclose(m_handle); }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    template <class Function>
    Function* Find(const char* name) const
    {
        return reinterpret_cast<Function*>(dlsym(m_handle, name));
    }

private:
    void* m_handle;
};

} // namespace

#define CALL(library, function) library.Find<decltype(function)>(#function)

// A host's function of the same name as one of the library, which must not call it in place of its own.
extern "C" bool LogMessage(int, unsigned int, const char*, const char*)
{
    gHostIsCalled = true;
    return false;
}

TEST(Library, StartsWithTheDefaults)
{
    const Library library;
    LoggingSettings settings = {9, 9, 9, LOGGING_STRATEGY_OVERWRITE, 9, 9};
    CALL(library, GetLoggingOptions)(&settings);
    EXPECT_EQ(0, settings.logLevel);
    EXPECT_EQ(0xFFFFFFFFu, settings.logMask);
    EXPECT_EQ(100u, settings.flushInterval);
    EXPECT_EQ(LOGGING_STRATEGY_APPEND, settings.strategy);
    EXPECT_EQ(0u, settings.maxFileSize);
    EXPECT_EQ(0u, settings.reserved);
    EXPECT_STREQ("ZelvoReader.log", CALL(library, GetLogFilename)());
    EXPECT_TRUE(CALL(library, LogMessage)(0, ~0u, "", "dropped"));
    EXPECT_FALSE(std::filesystem::exists("ZelvoReader.log"));
}

TEST(Library, UnloadsForGoodAndKeepsTheLogOfItsOwnFunctions)
{
    const TemporaryFolder folder;
    for (const ZelvoReaderLoggingStrategy strategy : {LOGGING_STRATEGY_APPEND, LOGGING_STRATEGY_FILE_SIZE})
    {
        const std::string name = folder / (strategy == LOGGING_STRATEGY_APPEND ? "app.log" : "app.1.log");
        {
            const Library library;
            LoggingSettings settings = {0, 0, 100, strategy, 1000, 0};
            CALL(library, SetLoggingOptions)(&settings);
            CALL(library, InitialiseLogging)(true, 3, 1, (folder / "app.log").c_str());
            CALL(library, LogWarning)(0, "Main - ", "text");
            EXPECT_EQ("", ReadFile(name));
        }
        EXPECT_FALSE(gHostIsCalled);
        EXPECT_EQ(nullptr, dlopen(ERRORHANDLERDLL_PATH, RTLD_NOW | RTLD_NOLOAD));
        ASSERT_EQ(1u, ParseLog(ReadFile(name)).size());
        EXPECT_EQ("Main - An unknown warning occured - text", ParseLog(ReadFile(name))[0].m_text);
        EXPECT_EQ(0, RunChild([] { return 0; })) << "a fork runs handlers that are gone";
    }
}
