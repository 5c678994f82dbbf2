// What this process has open.
#ifndef TESTS_SUPPORT_DESCRIPTORS_H
#define TESTS_SUPPORT_DESCRIPTORS_H

#include <filesystem>
#include <string>

// The open descriptor of a file, or -1.
inline int DescriptorOf(const std::string& path)
{
    int descriptor = 1023;
    std::error_code error;
    while (descriptor >= 0 && std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), error) != path)
    {
        --descriptor;
    }
    return descriptor;
}

#endif
