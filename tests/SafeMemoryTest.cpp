#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "ErrorHandlerDll/crash/SafeMemory.h"

namespace
{

constexpr std::size_t kPage = 4096;

// A readable page with every kind of page that is not behind it.
class Pages
{
public:
    enum Second
    {
        UNMAPPED,
        PROTECTED,
        PAST_END_OF_FILE,
    };

    explicit Pages(Second second)
    {
        const int file = second == PAST_END_OF_FILE ? static_cast<int>(syscall(SYS_memfd_create, "page", 0)) : -1;
        if (file >= 0 && ftruncate(file, kPage) != 0)
            std::abort();
        const int flags = file >= 0 ? MAP_SHARED : MAP_PRIVATE | MAP_ANONYMOUS;
        m_start = static_cast<unsigned char*>(mmap(nullptr, 2 * kPage, PROT_READ | PROT_WRITE, flags, file, 0));
        if (m_start == MAP_FAILED)
            std::abort();
        if (file >= 0)
            close(file);
        if (second == UNMAPPED)
            munmap(m_start + kPage, kPage);
        if (second == PROTECTED)
            mprotect(m_start + kPage, kPage, PROT_NONE);
        for (std::size_t i = 0; i < kPage; ++i)
            m_start[i] = static_cast<unsigned char>(i * 7 + 1);
    }
    Pages(const Pages&) = delete;
    Pages& operator=(const Pages&) = delete;
    ~Pages() { munmap(m_start, 2 * kPage); }

    unsigned char* Start() const { return m_start; }
    unsigned char* Border() const { return m_start + kPage; }

private:
    unsigned char* m_start;
};

const void* At(std::uintptr_t address)
{
    return reinterpret_cast<const void*>(address);
}

// Returns the number of the check that failed, 0 when all is well; also run where system calls are refused.
int CheckAllKinds()
{
    errno = ERANGE;
    unsigned char bytes[2 * kPage];
    for (Pages::Second second : {Pages::UNMAPPED, Pages::PROTECTED, Pages::PAST_END_OF_FILE})
    {
        const Pages pages(second);
        errno = ERANGE;
        if (!Crash::ReadMemory(pages.Start() + 5, bytes, kPage - 5) || std::memcmp(bytes, pages.Start() + 5, kPage - 5) != 0)
            return 1;
        for (std::size_t before : {0u, 1u, 8u, 200u})
            if (Crash::ReadMemory(pages.Border() - before, bytes, before + 1) ||
                !Crash::ReadMemory(pages.Border() - before, bytes, before))
                return 2;

        bool readable[16];
        Crash::ReadMemoryBytes(pages.Border() - 6, bytes, readable, 16);
        for (std::size_t i = 0; i < 16; ++i)
            if (readable[i] != (i < 6) || bytes[i] != (i < 6 ? pages.Border()[static_cast<long>(i) - 6] : 0))
                return 3;

        Crash::MemoryReader reader;
        char text[32];
        std::memcpy(pages.Border() - 4, "tail", 4);
        if (reader.Read(reinterpret_cast<std::uintptr_t>(pages.Border()), text, 1) ||
            reader.ReadString(reinterpret_cast<std::uintptr_t>(pages.Border() - 4), text, sizeof(text)) != 4 ||
            std::strcmp(text, "tail") != 0)
            return 4;
    }
    constexpr std::uintptr_t kBad[] = {0,
                                       1,
                                       4095,
                                       0x7ffffffff000,
                                       0x800000000000,
                                       0xffff800000000000,
                                       ~std::uintptr_t{0} - 4096,
                                       ~std::uintptr_t{0} - 7,
                                       ~std::uintptr_t{0}};
    for (std::uintptr_t address : kBad)
        if (Crash::ReadMemory(At(address), bytes, 1) || Crash::ReadMemory(At(address), bytes, 16))
            return 5;
    bool readable[320];
    Crash::ReadMemoryBytes(At(~std::uintptr_t{0} - 100), bytes, readable, 320);
    for (bool flag : readable)
        if (flag)
            return 6;
    return errno == ERANGE ? 0 : 7;
}

void RefuseSystemCall(unsigned number, int error)
{
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{4, code};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
        _exit(99);
}

int CountDescriptors()
{
    int count = 0;
    for (int descriptor = 0; descriptor < 256; ++descriptor)
        count += fcntl(descriptor, F_GETFD) >= 0 ? 1 : 0;
    return count;
}

template <class Body>
int ExitStatusOf(Body body)
{
    const pid_t child = fork();
    if (child == 0)
    {
        alarm(20);
        _exit(body());
    }
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

TEST(SafeMemory, ReadsWhatIsReadableAndNothingElse)
{
    EXPECT_EQ(CheckAllKinds(), 0);
}

TEST(SafeMemory, WorksWhereTheDirectCopyIsRefused)
{
    for (int error : {EPERM, ENOSYS})
        EXPECT_EQ(ExitStatusOf(
                      [error]
                      {
                          RefuseSystemCall(SYS_process_vm_readv, error);
                          const int open = CountDescriptors();
                          const int failed = CheckAllKinds();
                          return failed != 0 || CountDescriptors() == open ? failed : 50; // 50: a descriptor was left open
                      }),
                  0)
            << "error " << error;
}

TEST(SafeMemory, WorksWithoutTheDirectCopyAndWithoutDescriptors)
{
    EXPECT_EQ(ExitStatusOf(
                  []
                  {
                      RefuseSystemCall(SYS_process_vm_readv, EPERM);
                      RefuseSystemCall(SYS_pipe2, EMFILE);
                      return CheckAllKinds();
                  }),
              0);
}

TEST(SafeMemory, WorksAfterTheMainThreadHasEnded)
{
    EXPECT_EQ(ExitStatusOf(
                  []
                  {
                      std::thread(
                          [main = pthread_self()]
                          {
                              pthread_join(main, nullptr);
                              RefuseSystemCall(SYS_pipe2, EMFILE);
                              RefuseSystemCall(SYS_rt_sigprocmask, EPERM);
                              char byte;
                              _exit(Crash::ReadMemory("x", &byte, 1) && byte == 'x' ? 0 : 1);
                          })
                          .detach();
                      syscall(SYS_exit, 0); // not pthread_exit: it unwinds through the test framework
                      return 2;
                  }),
              0);
}

TEST(SafeMemory, SurvivesPagesThatVanish)
{
    const Pages pages(Pages::UNMAPPED);
    std::atomic<bool> stop{false};
    std::thread other(
        [&]
        {
            for (int i = 0; !stop; ++i)
                mprotect(pages.Start(), kPage, i % 2 == 0 ? PROT_NONE : PROT_READ);
        });
    int outcomes[2] = {0, 0};
    unsigned char bytes[64];
    for (int i = 0; i < 2000; ++i)
        ++outcomes[Crash::ReadMemory(pages.Start(), bytes, sizeof(bytes)) ? 1 : 0];
    stop = true;
    other.join();
    EXPECT_EQ(outcomes[0] + outcomes[1], 2000);
}

} // namespace
