// The shared library as a process loads it: what it starts with, binds to, and leaves behind. This program exports its
// symbols and does not link the library.
#include "support/LogTest.h"

#include <dlfcn.h>
#include <link.h>

namespace
{

int gHostLines = 0;

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
    const ElfW(Dyn) * Dynamic() const
    {
        link_map* map = nullptr;
        dlinfo(m_handle, RTLD_DI_LINKMAP, &map);
        return map->l_ld;
    }

private:
    void* m_handle;
};

} // namespace

// A host's function of the same name as one of the library, which must not call it in place of its own.
extern "C" bool LogMessage(int, unsigned int, const char*, const char*)
{
    ++gHostLines;
    return false;
}

TEST(Library, StartsWithTheDefaults)
{
    const Library library;
    LoggingSettings settings = {9, 9, 9, LOGGING_STRATEGY_OVERWRITE, 9, 9};
    library.Find<decltype(GetLoggingOptions)>("GetLoggingOptions")(&settings);
    EXPECT_EQ(0, settings.logLevel);
    EXPECT_EQ(0xFFFFFFFFu, settings.logMask);
    EXPECT_EQ(100u, settings.flushInterval);
    EXPECT_EQ(LOGGING_STRATEGY_APPEND, settings.strategy);
    EXPECT_EQ(0u, settings.maxFileSize);
    EXPECT_EQ(0u, settings.reserved);
    EXPECT_STREQ("ZelvoReader.log", library.Find<decltype(GetLogFilename)>("GetLogFilename")());
    EXPECT_TRUE(library.Find<decltype(LogMessage)>("LogMessage")(0, ~0u, "", "dropped"));
    EXPECT_FALSE(std::filesystem::exists("ZelvoReader.log"));
}

TEST(Library, UnloadsForGoodAndKeepsTheLog)
{
    const TemporaryFolder folder;
    for (const int strategy : {LOGGING_STRATEGY_APPEND, LOGGING_STRATEGY_FILE_SIZE})
    {
        const std::string name = folder / (strategy == LOGGING_STRATEGY_APPEND ? "app.log" : "app.1.log");
        {
            const Library library;
            LoggingSettings settings = {0, 0, 100, static_cast<ZelvoReaderLoggingStrategy>(strategy), 1000, 0};
            library.Find<decltype(SetLoggingOptions)>("SetLoggingOptions")(&settings);
            library.Find<decltype(InitialiseLogging)>("InitialiseLogging")(true, 3, 1, (folder / "app.log").c_str());
            EXPECT_TRUE(library.Find<decltype(LogFormatted)>("LogFormatted")(0, 1, "Main - ", "%d", 1));
            EXPECT_EQ("", ReadFile(name));
        }
        EXPECT_EQ(nullptr, dlopen(ERRORHANDLERDLL_PATH, RTLD_NOW | RTLD_NOLOAD));
        ASSERT_EQ(1u, ParseLog(ReadFile(name)).size());
        EXPECT_EQ("Main - 1", ParseLog(ReadFile(name))[0].m_text);
        EXPECT_EQ(0, RunChild([] { return 0; })) << "a fork runs handlers that are gone";
    }
}

TEST(Library, CallsItsOwnFunctionsNotTheHosts)
{
    const TemporaryFolder folder;
    const Library library;
    library.Find<decltype(InitialiseLogging)>("InitialiseLogging")(true, 3, 1, (folder / "app.log").c_str());
    library.Find<decltype(LogWarning)>("LogWarning")(0, "", "text");
    EXPECT_EQ(0, gHostLines);
    library.Find<decltype(ShutdownLogging)>("ShutdownLogging")();
    EXPECT_EQ(1u, ParseLog(ReadFile(folder / "app.log")).size());
}

#ifndef INSTRUMENTED_BUILD // sanitizers and coverage add initialisers of their own
// Objects that need construction stand in one unit, where their order is defined.
TEST(Library, HasOneInitialiser)
{
    constexpr ElfW(Xword) kOfTheCompiler = 1;
    const Library library;
    ElfW(Xword) size = 0;
    for (const ElfW(Dyn)* entry = library.Dynamic(); entry->d_tag != DT_NULL; ++entry)
    {
        size = entry->d_tag == DT_INIT_ARRAYSZ ? entry->d_un.d_val : size;
    }
    EXPECT_EQ(kOfTheCompiler + 1, size / sizeof(void (*)()));
}
#endif
