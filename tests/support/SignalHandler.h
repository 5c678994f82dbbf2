// Runs code in a signal handler of this thread.
#ifndef TESTS_SUPPORT_SIGNALHANDLER_H
#define TESTS_SUPPORT_SIGNALHANDLER_H

#include <csignal>
#include <functional>

inline thread_local std::function<void()> tHandlerBody;

inline void InSignalHandler(const std::function<void()>& body)
{
    tHandlerBody = body;
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = [](int)
    {
        tHandlerBody();
    };
    action.sa_flags = SA_NODEFER; // threads that the body starts must be able to do the same
    sigaction(SIGUSR2, &action, &before);
    raise(SIGUSR2);
    sigaction(SIGUSR2, &before, nullptr);
}

#endif
