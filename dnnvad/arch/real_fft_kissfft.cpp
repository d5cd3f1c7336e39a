// The real FFT through kissfft, for processors without NEON.
#include <kiss_fftr.h>

#include <cstdlib>

#include "dnnvad/arch/real_fft.h"

namespace tz_dnnvad {

// The plan is kissfft's own state, one block of the C library's.
static kiss_fftr_cfg state_of(RealFft* plan) { return reinterpret_cast<kiss_fftr_cfg>(plan); }

RealFft* real_fft_create(int length) {
    if (length < 8 || (length & (length - 1)) != 0) {
        return nullptr;
    }
    return reinterpret_cast<RealFft*>(kiss_fftr_alloc(length, 0, nullptr, nullptr));
}

void real_fft_destroy(RealFft* plan) { kiss_fftr_free(plan); }

void real_fft_forward(RealFft* plan, const float* in, float* out) {
    kiss_fftr(state_of(plan), in, reinterpret_cast<kiss_fft_cpx*>(out));
}

}  // namespace tz_dnnvad
