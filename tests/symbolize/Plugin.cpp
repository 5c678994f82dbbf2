// Loaded with dlopen, has one symbol that others see.
extern "C" void PluginEntry(int* target);

namespace
{

[[gnu::noinline]] void WriteInPlugin(int* target)
{
    *target = 1; // PLUGIN FAULT
}

} // namespace

void PluginEntry(int* target)
{
    WriteInPlugin(target); // PLUGIN CALL
    asm volatile("");      // keeps the call from becoming a jump
}
