// 16-byte aligned float storage and the header vectors of signal processing (internal header).
#ifndef DNNVAD_ALIGNED_H
#define DNNVAD_ALIGNED_H

#include <malloc.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>

namespace tz_dnnvad {

// `count` floats, 16-byte aligned, not initialised; released with the C library's free. Null when
// the size overflows or memory is short; a count of 0 gives a small valid block.
inline float* aligned_floats(std::size_t count) {
    if (count > (SIZE_MAX - 16) / sizeof(float)) {
        return nullptr;
    }
    return static_cast<float*>(memalign(16, count * sizeof(float)));
}

// The same, zeroed.
inline float* zeroed_aligned_floats(std::size_t count) {
    float* const floats = aligned_floats(count);
    if (floats != nullptr) {
        std::fill_n(floats, count, 0.0F);
    }
    return floats;
}

struct FreeDeleter {
    void operator()(void* block) const { std::free(block); }
};

// A short-lived aligned block of floats.
using AlignedFloats = std::unique_ptr<float[], FreeDeleter>;

inline AlignedFloats make_aligned_floats(std::size_t count) {
    return AlignedFloats(aligned_floats(count));
}

// Layout of a header vector of n floats inside an aligned block of n + 4 floats: the length stands
// at block index 3 and the data from index 4 on, so that element 1 of the vector is 16-byte aligned.
//
//      block    0 . . 3       4 5 6 ...          n + 3
//      vector         0 = n   1 2 3 ...          n
constexpr std::size_t kHeaderVectorPad = 4;

// Writes the length into an aligned block of length + 4 floats and returns the header vector in it.
inline float* header_vector(float* block, int length) {
    float* vector = block + kHeaderVectorPad - 1;
    vector[0] = static_cast<float>(length);
    return vector;
}

}  // namespace tz_dnnvad

#endif
