// A plug-in that calls back. FRAME_SIZE makes plug-ins of the same size, names and addresses that differ in their unwind
// tables.
#include <cstdlib>

[[gnu::constructor]] static void FaultOnRequest()
{
    if (std::getenv("PLUGIN_FAULTS") != nullptr)
    {
        *reinterpret_cast<volatile int*>(0x10) = 1; // the loader holds its lock
    }
}

extern "C" void PluginStep(void (*next)(int), int depth)
{
    volatile char frame[FRAME_SIZE] = {};
    next(depth);
    frame[0] = 1;
}
