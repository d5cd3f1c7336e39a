// Counts what the process takes from the C library's heap. Linking this in replaces malloc.
#ifndef DNNVAD_BENCH_ALLOCATIONS_H
#define DNNVAD_BENCH_ALLOCATIONS_H

#include <cstddef>

namespace bench {

struct Heap {
    std::size_t calls;  // allocations so far
    std::size_t bytes;  // in use now, as the heap rounds them
};

Heap heap();

}  // namespace bench

#endif
