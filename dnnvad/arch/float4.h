// Four single-precision lanes, one source for all processors (internal header).
//
// The NEON intrinsics are native on ARM and plain SSE through SIMDe elsewhere; lane arithmetic is
// the same to the bit (denormals apart: 32-bit NEON flushes them to zero). vmulq/vaddq stay separate
// roundings everywhere, which the stated summation orders rely on.
#ifndef DNNVAD_ARCH_FLOAT4_H
#define DNNVAD_ARCH_FLOAT4_H

#ifndef SIMDE_ENABLE_NATIVE_ALIASES
#define SIMDE_ENABLE_NATIVE_ALIASES
#endif
#include <simde/arm/neon.h>

namespace tz_dnnvad {

// sum + a * b, rounded twice. 32-bit ARM has one instruction for it; elsewhere what is called
// multiply-accumulate may be fused.
inline float32x4_t add_product(float32x4_t sum, float32x4_t a, float32x4_t b) {
#if defined(__arm__)
    return vmlaq_f32(sum, a, b);
#else
    return vaddq_f32(sum, vmulq_f32(a, b));
#endif
}

}  // namespace tz_dnnvad

#endif
