// The real-to-complex forward FFT that the build chose for this processor (internal header).
#ifndef DNNVAD_ARCH_REAL_FFT_H
#define DNNVAD_ARCH_REAL_FFT_H

namespace tz_dnnvad {

// An opaque plan for one transform length; may be used by one thread at a time.
struct RealFft;

// A plan for `length` points, a power of two from 8 on; null when it cannot be made.
RealFft* real_fft_create(int length);

// Accepts null.
void real_fft_destroy(RealFft* plan);

// The unscaled forward transform of `length` reals: length / 2 + 1 bins as interleaved (re, im)
// pairs, bin 0 first. `in` and `out` are 16-byte aligned and do not overlap; `in` is left as it is.
void real_fft_forward(RealFft* plan, const float* in, float* out);

}  // namespace tz_dnnvad

#endif
