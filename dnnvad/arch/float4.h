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

#endif
