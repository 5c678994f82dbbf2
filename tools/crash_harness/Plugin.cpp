// A module for the host to load. On request it faults while the loader holds its lock.
#include <cstdlib>

namespace
{

[[gnu::constructor]] void Initialise()
{
    if (std::getenv("PLUGIN_FAULTS") != nullptr)
    {
        *reinterpret_cast<volatile int*>(0x10) = 1;
    }
}

} // namespace
