#include "dnnvad/feat/log_spectrum.h"

#include <algorithm>
#include <cmath>

namespace tz_dnnvad {

void write_log_spectrum(const float* power, int bins, float* out, int count) {
    const int present = std::min(bins, count);
    for (int j = 0; j < present; ++j) {
        const double magnitude = static_cast<double>(sqrtf(power[j]));
        out[j] = static_cast<float>(10.0 * log10(magnitude + 1e-10));
    }
    std::fill(out + present, out + count, -100.0F);
}

}  // namespace tz_dnnvad
