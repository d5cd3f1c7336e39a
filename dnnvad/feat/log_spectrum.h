// The decibel spectrum of a frame (internal header).
#ifndef DNNVAD_FEAT_LOG_SPECTRUM_H
#define DNNVAD_FEAT_LOG_SPECTRUM_H

namespace tz_dnnvad {

// out[j] = (float)(10 * log10((double)sqrtf(power[j]) + 1e-10)) for j < min(bins, count), and the
// value of an empty bin, -100, for the rest of the count.
void write_log_spectrum(const float* power, int bins, float* out, int count);

}  // namespace tz_dnnvad

#endif
