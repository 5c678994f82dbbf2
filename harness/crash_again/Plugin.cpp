// A plug-in that calls back or, with nothing to call, faults. FRAME_SIZE makes plug-ins of the same size, names and
// addresses that differ in their unwind tables.
extern "C" void PluginStep(void (*next)(int), int depth)
{
    volatile char frame[FRAME_SIZE] = {};
    if (next == nullptr)
    {
        *reinterpret_cast<volatile int*>(0x10) = frame[0];
    }
    else
    {
        next(depth);
    }
    frame[0] = 1;
}
