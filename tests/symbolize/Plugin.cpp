// Loaded with dlopen. Of its functions, the one that faults is the one that others do not see.
extern "C" void PluginEntry(int* target);

// The linker puts this section first: once the file is stripped, this is the nearest symbol to that function.
extern "C" [[gnu::section(".text.unlikely")]] void PluginNeighbour() {}

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
