// Signal processing straight from the definitions, slow and in double precision, for tests.
#ifndef DNNVAD_TESTS_PLAIN_DSP_H
#define DNNVAD_TESTS_PLAIN_DSP_H

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstddef>
#include <random>
#include <vector>

namespace plain {

using Complex = std::complex<double>;
constexpr double kPi = 3.14159265358979323846;

inline std::vector<float> noise(std::size_t count, unsigned seed, double level = 8000.0) {
    std::mt19937 generator(seed);
    std::normal_distribution<double> normal(0.0, level);
    std::vector<float> values(count);
    for (float& value : values) {
        value = static_cast<float>(normal(generator));
    }
    return values;
}

// sum of z[m] e^(sign 2 pi i m k / n) over the zero-padded values.
template <typename Values>
std::vector<Complex> dft(const Values& values, std::size_t n, double sign) {
    std::vector<Complex> bins(n);
    for (std::size_t k = 0; k < n; ++k) {
        for (std::size_t m = 0; m < values.size(); ++m) {
            const double turn = static_cast<double>(m * k % n) / static_cast<double>(n);
            bins[k] += Complex(values[m]) * std::polar(1.0, sign * 2.0 * kPi * turn);
        }
    }
    return bins;
}

inline double mel(double hertz) { return 1127.0 * std::log(1.0 + hertz / 700.0); }

// Energies below triangles on the mel scale; bins outside the band's nearest bins do not count.
inline std::vector<double> triangles(const std::vector<Complex>& bins, double rate, int channels,
                                     double low, double high, bool power) {
    const double spacing = rate / static_cast<double>(bins.size());
    const double width = (mel(high) - mel(low)) / (channels + 1);
    std::vector<double> sums(static_cast<std::size_t>(channels));
    for (std::size_t j = 1; j < bins.size() / 2; ++j) {
        const double place = static_cast<double>(j);
        if (place + 1.0 < std::floor(low / spacing + 2.5) ||
            place + 1.0 > std::floor(high / spacing + 0.5)) {
            continue;
        }
        const double energy = power ? std::norm(bins[j]) : std::abs(bins[j]);
        for (int c = 1; c <= channels; ++c) {
            const double distance = std::abs((mel(place * spacing) - mel(low)) / width - c);
            sums[static_cast<std::size_t>(c - 1)] += std::max(0.0, 1.0 - distance) * energy;
        }
    }
    return sums;
}

}  // namespace plain

#endif
