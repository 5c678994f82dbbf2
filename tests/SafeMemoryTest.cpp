#include "ErrorHandlerDll/unwind/MemoryReader.h"
#include "support/LogTest.h"
#include "support/Pages.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <thread>

namespace
{

// A page can be read up to the border, the next one cannot.
bool CheckReader(void* end)
{
    char* const border = static_cast<char*>(end);
    const auto address = reinterpret_cast<std::uintptr_t>(border);
    std::memcpy(border - 4, "tail", 4);
    Unwind::MemoryReader reader;
    char bytes[8];
    char text[32];
    return reader.Read(address - 8, bytes) && !reader.Read(address - 7, bytes) && !reader.Read(address, text, 1) &&
           reader.ReadString(address - 4, text, sizeof text) == 4 && std::strcmp(text, "tail") == 0;
}

// Returns the number of the check that failed, 0 when all is well; also run where system calls are refused.
int CheckAllKinds()
{
    unsigned char bytes[2 * Pages::kSize];
    errno = ERANGE;
    for (const auto second : {Pages::UNMAPPED, Pages::NO_ACCESS, Pages::PAST_END_OF_FILE})
    {
        const Pages pages(second);
        constexpr std::size_t kWhole = Pages::kSize - 5;
        errno = ERANGE;
        if (!Unwind::ReadMemory(pages.Start() + 5, bytes, kWhole) || std::memcmp(bytes, pages.Start() + 5, kWhole) != 0)
            return 1;
        for (const std::size_t before : {0u, 1u, 200u})
            if (Unwind::ReadMemory(pages.Border() - before, bytes, before + 1) ||
                !Unwind::ReadMemory(pages.Border() - before, bytes, before))
                return 2;

        if (!CheckReader(pages.Border()))
            return 4;
    }
    for (const std::uintptr_t address :
         {std::uintptr_t{0}, std::uintptr_t{4095}, std::uintptr_t{1} << 47, UINTPTR_MAX << 47, UINTPTR_MAX - 7, UINTPTR_MAX})
        if (Unwind::ReadMemory(reinterpret_cast<const void*>(address), bytes, 16))
            return 5;
    return errno == ERANGE ? 0 : 6;
}

// What a sandbox may do to all the ways of reading memory but the last.
int CheckUnderFilter(unsigned action)
{
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_process_vm_readv, 2, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_pipe2, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, action),
    };
    const sock_fprog program{5, code};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
        return 99;
    return CheckAllKinds();
}

TEST(SafeMemory, ReadsWhatIsReadableAndNothingElse)
{
    EXPECT_EQ(CheckAllKinds(), 0);
    EXPECT_EQ(RunChild([] { return CheckUnderFilter(SECCOMP_RET_ERRNO | EPERM); }), 0);
    EXPECT_EQ(RunChild([] { return CheckUnderFilter(SECCOMP_RET_KILL_PROCESS); }), 0);
}

int ReadAfterTheMainThread()
{
    const auto read = [main = pthread_self()]
    {
        pthread_join(main, nullptr);
        char byte;
        _exit(Unwind::ReadMemory("x", &byte, 1) && byte == 'x' ? 0 : 1);
    };
    std::thread(read).detach();
    syscall(SYS_exit, 0); // not pthread_exit: it unwinds through the test framework
    return 2;
}

TEST(SafeMemory, WorksAfterTheMainThreadHasEnded)
{
    EXPECT_EQ(RunChild(ReadAfterTheMainThread), 0);
}

} // namespace
