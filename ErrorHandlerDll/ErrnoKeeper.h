// errno is the host's: formatting and writing may change it, a call of the library leaves it as it was.
#ifndef ERRORHANDLERDLL_ERRNOKEEPER_H
#define ERRORHANDLERDLL_ERRNOKEEPER_H

#include <cerrno>

class ErrnoKeeper
{
public:
    ErrnoKeeper() noexcept : m_errno(errno) {}
    ~ErrnoKeeper() { errno = m_errno; }
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

private:
    int m_errno;
};

#endif
