// errno is the host's: formatting and writing may change it, a call of the library leaves it as it was.
#ifndef QV_ERRNOSCOPE_H
#define QV_ERRNOSCOPE_H

#include <cerrno>

class ErrnoScope
{
public:
    ErrnoScope() noexcept : m_errno(errno) {}
    ~ErrnoScope() { errno = m_errno; }
    ErrnoScope(const ErrnoScope&) = delete;
    ErrnoScope& operator=(const ErrnoScope&) = delete;

private:
    int m_errno;
};

#endif
