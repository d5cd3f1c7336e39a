// The real FFT through Ne10, on ARM.
//
// The NEON routines are called directly: the build has chosen a processor that has NEON, so that
// the library's run-time selection (ne10_init) is not needed.
#include <ne10/NE10.h>

#include "dnnvad/arch/real_fft.h"

namespace tz_dnnvad {

// The plan is Ne10's own state.
static ne10_fft_r2c_cfg_float32_t state_of(RealFft* plan) {
    return reinterpret_cast<ne10_fft_r2c_cfg_float32_t>(plan);
}

RealFft* real_fft_create(int length) {
    if (length < 8 || (length & (length - 1)) != 0) {
        return nullptr;
    }
    return reinterpret_cast<RealFft*>(ne10_fft_alloc_r2c_float32(length));
}

void real_fft_destroy(RealFft* plan) {
    if (plan != nullptr) {
        ne10_fft_destroy_r2c_float32(state_of(plan));
    }
}

void real_fft_forward(RealFft* plan, const float* in, float* out) {
    // Ne10's signature lacks the const; the samples are only read.
    ne10_fft_r2c_1d_float32_neon(reinterpret_cast<ne10_fft_cpx_float32_t*>(out),
                                 const_cast<ne10_float32_t*>(in), state_of(plan));
}

}  // namespace tz_dnnvad
