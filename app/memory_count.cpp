#include "memory_count.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<long long> calls{0}, bytes{0};

void* counted(void* block) {
    calls.fetch_add(1, std::memory_order_relaxed);
    bytes.fetch_add(static_cast<long long>(malloc_usable_size(block)), std::memory_order_relaxed);
    return block;
}

}  // namespace

MemoryCount memory_count() { return {calls.load(), bytes.load()}; }

// The linker's names: __wrap_X is what calls of X reach, __real_X is X itself.
extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_memalign(std::size_t alignment, std::size_t size);
void __real_free(void* block);

void* __wrap_malloc(std::size_t size) { return counted(__real_malloc(size)); }
void* __wrap_calloc(std::size_t count, std::size_t size) {
    return counted(__real_calloc(count, size));
}
void* __wrap_memalign(std::size_t alignment, std::size_t size) {
    return counted(__real_memalign(alignment, size));
}
void __wrap_free(void* block) {
    bytes.fetch_sub(static_cast<long long>(malloc_usable_size(block)), std::memory_order_relaxed);
    __real_free(block);
}
}

void* operator new(std::size_t size) {
    if (void* const block = std::malloc(size > 0 ? size : 1)) {
        return block;
    }
    throw std::bad_alloc();
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return std::malloc(size > 0 ? size : 1);
}

void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
