#include "bench/allocations.h"

#include <malloc.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>

// glibc's own names, to which the replacements below lead on.
extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
void __libc_free(void*);
}

namespace {

std::atomic<std::size_t> calls{0};
std::atomic<std::size_t> bytes{0};

void* counted(void* block) {
    ++calls;
    bytes += malloc_usable_size(block);  // 0 for null
    return block;
}

void discount(void* block) { bytes -= malloc_usable_size(block); }

}  // namespace

extern "C" {

void* malloc(std::size_t size) { return counted(__libc_malloc(size)); }

void* calloc(std::size_t count, std::size_t size) { return counted(__libc_calloc(count, size)); }

void* realloc(void* block, std::size_t size) {
    discount(block);
    return counted(__libc_realloc(block, size));
}

void* memalign(std::size_t alignment, std::size_t size) {
    return counted(__libc_memalign(alignment, size));
}

void* aligned_alloc(std::size_t alignment, std::size_t size) { return memalign(alignment, size); }

int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
    *block = memalign(alignment, size);
    return *block == nullptr ? ENOMEM : 0;
}

void free(void* block) {
    discount(block);
    __libc_free(block);
}

}  // extern "C"

namespace bench {

Heap heap() { return {calls, bytes}; }

}  // namespace bench
