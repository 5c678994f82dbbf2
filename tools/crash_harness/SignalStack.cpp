#include "SignalStack.h"

#include <csignal>
#include <cstring>
#include <sys/mman.h>

namespace SignalStack
{

namespace
{

constexpr std::size_t kPage = 4096;
constexpr unsigned char kPattern = 0xA5;

std::size_t gSize = std::size_t{256} * 1024;
thread_local unsigned char* tStack = nullptr;

} // namespace

void SetSize(std::size_t size)
{
    gSize = size;
}

void Use()
{
    const std::size_t size = (gSize + kPage - 1) / kPage * kPage;
    auto* const memory =
        static_cast<unsigned char*>(mmap(nullptr, size + 2 * kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(memory + kPage, size, PROT_READ | PROT_WRITE);
    tStack = memory + kPage + size - gSize;
    std::memset(tStack, kPattern, gSize);
    stack_t stack = {};
    stack.ss_sp = tStack;
    stack.ss_size = gSize;
    sigaltstack(&stack, nullptr);
}

const unsigned char* GetLowestUsed()
{
    const unsigned char* lowest = tStack;
    while (*lowest == kPattern)
    {
        ++lowest;
    }
    return lowest;
}

} // namespace SignalStack
