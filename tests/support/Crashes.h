// What tests of faults share: the fault, handlers, and texts counted in what a dump has left.
#ifndef TESTS_SUPPORT_CRASHES_H
#define TESTS_SUPPORT_CRASHES_H

#include <csignal>
#include <string>

// Writes to address 16, in assembler, so that neither the compiler nor a sanitizer sees it coming.
inline void Fault()
{
    asm volatile("movb $1, 16" ::: "memory");
}

inline void InstallHandler(int signal, void (*handler)(int, siginfo_t*, void*), int flags = SA_NODEFER)
{
    struct sigaction action = {};
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO | flags;
    sigaction(signal, &action, nullptr);
}

inline int Count(const std::string& text, const std::string& part)
{
    int count = 0;
    for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size())
    {
        ++count;
    }
    return count;
}

#endif
