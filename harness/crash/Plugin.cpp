// A plug-in that calls back or, with nothing to call, faults. FRAME_SIZE makes plug-ins of the same size, names and
// addresses that differ in their unwind tables.
#include <cstdlib>

namespace
{

void Fault()
{
    *reinterpret_cast<volatile int*>(0x10) = 1;
}

[[gnu::constructor]] void FaultOnRequest()
{
    if (std::getenv("PLUGIN_FAULTS") != nullptr)
    {
        Fault(); // the loader holds its lock
    }
}

} // namespace

extern "C" void PluginStep(void (*next)(int), int depth)
{
    volatile char frame[FRAME_SIZE] = {};
    next == nullptr ? Fault() : next(depth);
    frame[0] = 1;
}
