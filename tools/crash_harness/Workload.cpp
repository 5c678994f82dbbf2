#include "Workload.h"

#include "Backend.h"
#include "SignalStack.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <pthread.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

Record* gRecord = nullptr;
int gWorkers = 1;

void LogNext(int worker)
{
    std::atomic<std::uint64_t>& returned = gRecord->m_returned[worker];
    const std::uint64_t number = returned.load(std::memory_order_relaxed) + 1;
    if (Backend::Log(worker, number))
    {
        returned.store(number);
    }
}

void PrintNext()
{
    // 64 bytes, which divide stdio's buffer: what other threads print never cuts a line in two.
    std::printf("printed %55llu\n", static_cast<unsigned long long>(gRecord->m_printed.load()));
    ++gRecord->m_printed;
}

void NoteBefore()
{
    for (int i = 0; i < kMaxWorkers; ++i)
    {
        gRecord->m_before[i] = gRecord->m_returned[i];
    }
    gRecord->m_frozen = 1;
}

[[noreturn]] void StopForEver()
{
    for (;;)
    {
        pause();
    }
}

void MeetDriver()
{
    gRecord->m_ready = 1;
    while (gRecord->m_go == 0)
    {
        usleep(200);
    }
}

[[gnu::noinline]] void* Allocate(std::size_t size)
{
    void* memory = std::malloc(size);
    asm volatile("" : "+r"(memory));
    return memory;
}

namespace
{

void DoSomething(int worker, unsigned int& seed)
{
    switch (rand_r(&seed) % 16)
    {
    case 0:
    {
        std::vector<void*> blocks;
        for (int i = 0; i < 30; ++i)
        {
            blocks.push_back(Allocate(static_cast<std::size_t>(rand_r(&seed) % 3000)));
        }
        for (void* block : blocks)
        {
            std::free(block);
        }
        break;
    }
    case 1:
        PrintNext();
        break;
    case 2:
        Backend::RaiseAndHandle();
        break;
    case 3:
    {
        const std::time_t now = std::time(nullptr);
        std::tm fields;
        localtime_r(&now, &fields);
        std::mktime(&fields);
        break;
    }
    case 4:
        if (rand_r(&seed) % 4 == 0)
        {
            if (void* const plugin = dlopen("./plugin.so", RTLD_NOW))
            {
                dlclose(plugin);
            }
        }
        break;
    case 5:
        if (rand_r(&seed) % 8 == 0)
        {
            const pid_t child = fork();
            if (child == 0)
            {
                _exit(0);
            }
            waitpid(child, nullptr, 0);
        }
        break;
    default:
        LogNext(worker);
        break;
    }
}

void Work(int worker)
{
    auto seed = static_cast<unsigned int>(getpid() * kMaxWorkers + worker);
    for (;;)
    {
        DoSomething(worker, seed);
    }
}

} // namespace

void RunWorkers()
{
    static pthread_barrier_t barrier;
    pthread_barrier_init(&barrier, nullptr, static_cast<unsigned int>(gWorkers));
    for (int i = 1; i < gWorkers; ++i)
    {
        std::thread(
            [i]
            {
                SignalStack::Use();
                pthread_barrier_wait(&barrier);
                Work(i);
            })
            .detach();
    }
    pthread_barrier_wait(&barrier);
    gRecord->m_ready = 1;
    Work(0);
}
