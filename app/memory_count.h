// Counts what the library and the program allocate.
//
// The linker leads their calls of malloc and its like here, and operator new is the program's own.
// What shared libraries allocate for themselves (kissfft's tables: a few kilobytes) is not seen.
#ifndef DNNVAD_APP_MEMORY_COUNT_H
#define DNNVAD_APP_MEMORY_COUNT_H

struct MemoryCount {
    long long calls;  // allocations so far
    long long bytes;  // allocated and not released, as the allocator rounds them
};

MemoryCount memory_count();

#endif
