#include "dnnvad/QN_fltvec.h"

#include <cmath>
#include <cstdint>
#include <cstring>

#include "dnnvad/saturate.h"

namespace tz_dnnvad {

int qn_math = 0;

namespace {

// Whether |x| < 700: beyond that the exponent bits of a double would run out. Without the sign, bit
// patterns are in the order of magnitudes, NaNs on top; integers are compared cheaply everywhere.
bool in_fast_range(float x) {
    constexpr std::uint32_t kLimit = 0x442F0000;  // 700
    std::uint32_t bits;
    std::memcpy(&bits, &x, sizeof bits);
    return (bits & 0x7FFFFFFF) < kLimit;
}

// e^x for |x| < 700: x / ln 2 lands in the exponent field of a double's high word; the constant
// 60801 centres the error of the linear mantissa.
double fast_exp(double x) {
    const auto high = static_cast<std::int32_t>(x * 1512775.3951951857) + 1072632447;
    const std::uint64_t bits = static_cast<std::uint64_t>(static_cast<std::uint32_t>(high)) << 32;
    double value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

float sigmoid_from_exp(double e) { return static_cast<float>(1.0 / (e + 1.0)); }

// Softmax over any exponential: subtract the maximum, exponentiate, scale by one reciprocal.
template <typename Exp>
void softmax(unsigned n, const float* in, float* out, Exp exponential) {
    if (n == 0) {
        return;
    }
    float max = in[0];
    for (unsigned i = 1; i < n; ++i) {
        if (in[i] > max) {
            max = in[i];
        }
    }
    float sum = 0.0F;
    for (unsigned i = 0; i < n; ++i) {
        out[i] = exponential(in[i] - max);
        sum += out[i];
    }
    const float scale = 1.0F / sum;
    for (unsigned i = 0; i < n; ++i) {
        out[i] *= scale;
    }
}

}  // namespace

void qn_fe_sigmoid_vf_vf(unsigned n, const float* in, float* out) {
    unsigned outside = 0;
    for (unsigned i = 0; i < n; ++i) {
        outside += in_fast_range(in[i]) ? 0 : 1;
    }
    if (outside == 0) {  // the usual case: no branch in the loop, so that it can be vectorised
        for (unsigned i = 0; i < n; ++i) {
            out[i] = sigmoid_from_exp(fast_exp(-static_cast<double>(in[i])));
        }
        return;
    }
    for (unsigned i = 0; i < n; ++i) {
        const float x = in[i];
        out[i] = sigmoid_from_exp(in_fast_range(x) ? fast_exp(-static_cast<double>(x))
                                                   : static_cast<double>(expf(-x)));
    }
}

void qn_nv_sigmoid_vf_vf(unsigned n, const float* in, float* out) {
    for (unsigned i = 0; i < n; ++i) {
        out[i] = 1.0F / (expf(-in[i]) + 1.0F);
    }
}

void qn_fe_softmax_vf_vf(unsigned n, const float* in, float* out) {
    softmax(n, in, out, [](float t) {
        return in_fast_range(t) ? static_cast<float>(fast_exp(static_cast<double>(t))) : expf(t);
    });
}

void qn_nv_softmax_vf_vf(unsigned n, const float* in, float* out) {
    softmax(n, in, out, [](float t) { return expf(t); });
}

void qn_nv_muladd_vffvf_vf(unsigned n, const float* a, float s, const float* b, float* out) {
    for (unsigned i = 0; i < n; ++i) {
        out[i] = fmaf(a[i], s, b[i]);
    }
}

int qn_findexp_f_i(float x) {
    return truncate_to_int(std::ceil(static_cast<double>(logf(std::fabs(x))) * 1.442695040888963));
}

void qn_swapb_vd_vd(unsigned n, const double* in, double* out) {
    for (unsigned i = 0; i < n; ++i) {
        std::uint64_t bits;
        std::memcpy(&bits, &in[i], sizeof bits);
        bits = __builtin_bswap64(bits);
        std::memcpy(&out[i], &bits, sizeof bits);
    }
}

}  // namespace tz_dnnvad
