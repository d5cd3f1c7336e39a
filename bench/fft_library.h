// The FFT library behind dnnvad/arch/real_fft.h, called directly.
#ifndef DNNVAD_BENCH_FFT_LIBRARY_H
#define DNNVAD_BENCH_FFT_LIBRARY_H

#include <functional>

namespace bench {

// Returns a run of the real forward transform of `points` samples.
std::function<void()> library_transform(int points);

}  // namespace bench

#endif
