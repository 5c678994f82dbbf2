// Two pages of memory, of which only the first can be read.
#ifndef TESTS_SUPPORT_PAGES_H
#define TESTS_SUPPORT_PAGES_H

#include <cstddef>
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

class Pages
{
public:
    enum Second
    {
        UNMAPPED,
        NO_ACCESS,
        PAST_END_OF_FILE
    };
    static constexpr std::size_t kSize = 4096;

    explicit Pages(Second second)
    {
        const int file = memfd_create("page", 0);
        if (file < 0 || ftruncate(file, kSize) != 0)
        {
            std::abort();
        }
        m_start = static_cast<unsigned char*>(mmap(nullptr, 2 * kSize, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
        close(file);
        if (second == UNMAPPED)
        {
            munmap(Border(), kSize);
        }
        else if (second == NO_ACCESS)
        {
            mprotect(Border(), kSize, PROT_NONE);
        }
        for (std::size_t i = 0; i < kSize; ++i)
        {
            m_start[i] = static_cast<unsigned char>(i * 7 + 1);
        }
    }
    Pages(const Pages&) = delete;
    Pages& operator=(const Pages&) = delete;
    ~Pages() { munmap(m_start, 2 * kSize); }

    unsigned char* Start() const { return m_start; }
    unsigned char* Border() const { return m_start + kSize; }

private:
    unsigned char* m_start;
};

#endif
