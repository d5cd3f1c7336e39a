// Multiply and add with one rounding, quick on every processor (internal header).
#ifndef DNNVAD_ARCH_FUSED_H
#define DNNVAD_ARCH_FUSED_H

#include <cmath>
#include <cstdint>
#include <cstring>

namespace tz_dnnvad {

// fmaf(a, b, c). Where the processor has no instruction for it (baseline x86-64, VFPv3) fmaf is a
// library call, up to a hundred times as slow.
//
// The product of two floats is exact as a double, so only the addition rounds, and rounding its
// result again to float gives the fused result - unless the first rounding landed on the middle
// between two floats, from where the second no longer knows the way. Such sums, one in 2^28, are left
// to fmaf, and so are those below the normal floats (0 among them), where the middles lie elsewhere.
inline float fused_multiply_add(float a, float b, float c) {
#ifdef FP_FAST_FMAF
    return fmaf(a, b, c);
#else
    const double sum = static_cast<double>(a) * static_cast<double>(b) + static_cast<double>(c);
    std::uint64_t bits;
    std::memcpy(&bits, &sum, sizeof bits);
    // Of the 29 bits that a float lacks a middle has only the first; 2^-126 begins with 0x381.
    const bool middle = (bits & 0x1FFFFFFF) == 0x10000000;
    const bool tiny = (bits & 0x7FFFFFFFFFFFFFFF) < 0x3810000000000000;
    return middle || tiny ? fmaf(a, b, c) : static_cast<float>(sum);
#endif
}

}  // namespace tz_dnnvad

#endif
