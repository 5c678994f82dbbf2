#include "TrappedCalls.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <ucontext.h>
#include <vector>

namespace TrappedCalls
{

const Trapped kTrapped[] = {{SYS_open, "open"},           {SYS_openat, "openat"},         {SYS_write, "write"},
                            {SYS_writev, "writev"},       {SYS_close, "close"},           {SYS_fcntl, "fcntl"},
                            {SYS_lseek, "lseek"},         {SYS_getdents64, "getdents64"}, {SYS_pread64, "pread64"},
                            {SYS_ftruncate, "ftruncate"}, {SYS_fstat, "fstat"},           {SYS_newfstatat, "newfstatat"},
                            {SYS_rename, "rename"}};
const int kTrappedCount = sizeof kTrapped / sizeof kTrapped[0];

namespace
{

// None of the calls has a sixth argument: there the handler marks its own, which pass.
constexpr unsigned int kPassMark = 0x5AFE0CA1;

Plan gPlan = {};
volatile int gCounted = -1; // below 0: not armed

long Pass(long number, long first, long second, long third, long fourth)
{
    register long argument4 asm("r10") = fourth;
    register long argument5 asm("r8") = 0;
    register long argument6 asm("r9") = kPassMark;
    long result = number;
    asm volatile("syscall"
                 : "+a"(result)
                 : "D"(first), "S"(second), "d"(third), "r"(argument4), "r"(argument5), "r"(argument6)
                 : "rcx", "r11", "memory");
    return result;
}

long PassHalf(long number, const greg_t* registers)
{
    if (number == SYS_write)
    {
        const long size = registers[REG_RDX];
        return Pass(number, registers[REG_RDI], registers[REG_RSI], size > 1 ? size / 2 : size, 0);
    }
    const auto* pieces = reinterpret_cast<const iovec*>(registers[REG_RSI]);
    iovec first = pieces[0];
    first.iov_len = first.iov_len > 1 ? first.iov_len / 2 : first.iov_len;
    return Pass(number, registers[REG_RDI], reinterpret_cast<long>(&first), 1, 0);
}

void OnTrappedCall(int, siginfo_t* info, void* context)
{
    greg_t* const registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
    const int number = info->si_syscall;
    bool fails = false;
    if (gCounted >= 0 && (gPlan.m_number < 0 || gPlan.m_number == number))
    {
        fails = gCounted >= gPlan.m_first && gCounted < gPlan.m_first + gPlan.m_count;
        gCounted = gCounted + 1;
    }
    const bool writes = number == SYS_write || number == SYS_writev;
    if (!fails || (gPlan.m_error == kShortWrite && !writes))
    {
        registers[REG_RAX] = Pass(number, registers[REG_RDI], registers[REG_RSI], registers[REG_RDX], registers[REG_R10]);
        return;
    }
    if (gPlan.m_error == kShortWrite)
    {
        registers[REG_RAX] = PassHalf(number, registers);
        return;
    }
    if (number == SYS_close)
    {
        Pass(number, registers[REG_RDI], 0, 0, 0); // Linux closes before it reports
    }
    registers[REG_RAX] = -gPlan.m_error;
}

} // namespace

bool Install()
{
    struct sigaction action = {};
    action.sa_sigaction = OnTrappedCall;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGSYS, &action, nullptr);

    std::vector<sock_filter> filter;
    filter.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args) + 5 * sizeof(__u64)));
    filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kPassMark, 0, 1));
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    filter.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)));
    for (const Trapped& call : kTrapped)
    {
        filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<__u32>(call.m_number), 0, 1));
        filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP));
    }
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog program = {static_cast<unsigned short>(filter.size()), filter.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

void Arm(const Plan& plan)
{
    gPlan = plan;
    gCounted = 0;
}

int Disarm()
{
    const int counted = gCounted;
    gCounted = -1;
    return counted;
}

const char* Name(int number)
{
    for (const Trapped& call : kTrapped)
    {
        if (call.m_number == number)
        {
            return call.m_name;
        }
    }
    return "any call";
}

} // namespace TrappedCalls
