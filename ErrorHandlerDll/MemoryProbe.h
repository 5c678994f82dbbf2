// Reads memory that may not be there.
#ifndef ERRORHANDLERDLL_MEMORYPROBE_H
#define ERRORHANDLERDLL_MEMORYPROBE_H

// The byte at `address`, whatever the address: 0 with `readable` false when it cannot be read. The byte is read by the
// kernel and never by this code, so that a page which vanishes, has no read access or lies past the end of its file does no
// harm.
unsigned char GetMemoryContents(unsigned char* address, bool& readable) noexcept;

#endif
