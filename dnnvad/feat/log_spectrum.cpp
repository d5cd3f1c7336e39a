// 10 log10(magnitude + 1e-10) for four bins at once, to the bit what the C library's log10 gives.
//
// Every bin of every frame takes this logarithm; log10 itself would cost more than the frame's FFT.
// The approximation here is kept as hi + lo, hi exact and lo small, and is right to within kError,
// some hundredths of a result's float spacing. If hi + (lo - kError) and hi + (lo + kError) round to
// the same float, so does the library's value, which lies between them. Otherwise log10 is asked,
// for about one bin in 200 of ordinary sound.
//
// With magnitude = 2^k * m, m in [1, 2), and c the centre of the 128th of [1, 2) that m lies in:
//
//      10 log10 magnitude = k * 10 log10 2 + 10 log10 c + 10 log10(1 + r),   r = (m - c) / c
//
// m - c is exact, and |r| <= 2^-8 leaves three terms of the series for the last logarithm.
#include "dnnvad/feat/log_spectrum.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

#include "dnnvad/arch/float4.h"

namespace tz_dnnvad {

namespace {

constexpr double kDecibelsPerNeper = 4.3429448190325183;   // 10 / ln 10
constexpr double kDecibelsPerOctave = 3.0102999566398120;  // 10 log10 2

// Largest error of hi + lo, with a margin: 3.5e-9 over all floats from 1 on.
constexpr float kError = 5e-9F;

// The part of a value that is a multiple of 2^-14. Such parts add up exactly as floats: results
// below 512 take 23 bits.
constexpr float coarse(double value) {
    return static_cast<float>(static_cast<long>(value * 16384.0)) / 16384.0F;
}

constexpr float fine(double value) {
    return static_cast<float>(value - static_cast<double>(coarse(value)));
}

constexpr int kIntervals = 128;

struct Table {
    // Per interval: centre, 1 / centre, and 10 log10 centre as coarse + fine.
    alignas(16) float row[kIntervals][4];

    constexpr Table() : row() {
        for (int i = 0; i < kIntervals; ++i) {
            const double centre = 1.0 + (i + 0.5) / kIntervals;
            // ln c = 2 artanh((c - 1) / (c + 1)), whose series is short for c in [1, 2).
            const double s = (centre - 1.0) / (centre + 1.0);
            double power = s;
            double sum = 0.0;
            for (int n = 1; n < 40; n += 2) {
                sum += power / n;
                power *= s * s;
            }
            const double decibels = 2.0 * kDecibelsPerNeper * sum;
            row[i][0] = static_cast<float>(centre);
            row[i][1] = static_cast<float>(1.0 / centre);
            row[i][2] = coarse(decibels);
            row[i][3] = fine(decibels);
        }
    }
};

constexpr Table kTable;

// The table's rows for four intervals, as one vector per column.
struct Columns {
    float32x4_t centre, reciprocal, coarse, fine;
};

Columns look_up(uint32x4_t index) {
    const float32x4_t row0 = vld1q_f32(kTable.row[vgetq_lane_u32(index, 0)]);
    const float32x4_t row1 = vld1q_f32(kTable.row[vgetq_lane_u32(index, 1)]);
    const float32x4_t row2 = vld1q_f32(kTable.row[vgetq_lane_u32(index, 2)]);
    const float32x4_t row3 = vld1q_f32(kTable.row[vgetq_lane_u32(index, 3)]);
    const float32x4x2_t even = vzipq_f32(row0, row2);
    const float32x4x2_t odd = vzipq_f32(row1, row3);
    const float32x4x2_t first = vzipq_f32(even.val[0], odd.val[0]);
    const float32x4x2_t last = vzipq_f32(even.val[1], odd.val[1]);
    return {first.val[0], first.val[1], last.val[0], last.val[1]};
}

// The two bounds of the logarithm; meaningless for magnitudes that in_range refuses.
struct Bounds {
    float32x4_t low, high;
};

// Magnitudes from 1 on, and finite. Compared by their bit patterns, which are in the same order.
uint32x4_t in_range(float32x4_t magnitude) {
    const int32x4_t bits = vreinterpretq_s32_f32(magnitude);
    return vandq_u32(vcgtq_s32(bits, vdupq_n_s32(0x3F7FFFFF)),
                     vcgtq_s32(vdupq_n_s32(0x7F800000), bits));
}

Bounds decibel_bounds(float32x4_t magnitude) {
    const uint32x4_t bits = vreinterpretq_u32_f32(magnitude);
    const int32x4_t biased = vreinterpretq_s32_u32(vshrq_n_u32(bits, 23));
    const float32x4_t k = vcvtq_f32_s32(vsubq_s32(biased, vdupq_n_s32(127)));
    const uint32x4_t fraction = vandq_u32(bits, vdupq_n_u32(0x007FFFFFU));
    const float32x4_t m = vreinterpretq_f32_u32(vorrq_u32(fraction, vdupq_n_u32(0x3F800000U)));
    const Columns c = look_up(vshrq_n_u32(fraction, 16));

    const float32x4_t r = vmulq_f32(vsubq_f32(m, c.centre), c.reciprocal);
    constexpr float first = static_cast<float>(kDecibelsPerNeper);
    constexpr float second = static_cast<float>(kDecibelsPerNeper / 2.0);
    constexpr float third = static_cast<float>(kDecibelsPerNeper / 3.0);
    const float32x4_t bend = vsubq_f32(vmulq_f32(r, vdupq_n_f32(third)), vdupq_n_f32(second));
    const float32x4_t series =
        vaddq_f32(vmulq_f32(r, vdupq_n_f32(first)), vmulq_f32(vmulq_f32(r, r), bend));

    const float32x4_t octave_coarse = vdupq_n_f32(coarse(kDecibelsPerOctave));
    const float32x4_t octave_fine = vdupq_n_f32(fine(kDecibelsPerOctave));
    const float32x4_t hi = vaddq_f32(vmulq_f32(k, octave_coarse), c.coarse);
    const float32x4_t lo = vaddq_f32(vaddq_f32(vmulq_f32(k, octave_fine), c.fine), series);
    const float32x4_t error = vdupq_n_f32(kError);
    return {vaddq_f32(hi, vsubq_f32(lo, error)), vaddq_f32(hi, vaddq_f32(lo, error))};
}

bool all_set(uint32x4_t mask) {
    const uint64x2_t halves = vreinterpretq_u64_u32(mask);
    return (vgetq_lane_u64(halves, 0) & vgetq_lane_u64(halves, 1)) ==
           std::numeric_limits<std::uint64_t>::max();
}

float decibels(float magnitude) {
    return static_cast<float>(10.0 * log10(static_cast<double>(magnitude) + 1e-10));
}

}  // namespace

void write_log_spectrum(const float* power, int bins, float* out, int count) {
    const int present = std::min(bins, count);
    for (int j = 0; j < present; ++j) {
        out[j] = sqrtf(power[j]);
    }
    const int whole = present - present % 4;
    for (int j = 0; j < whole; j += 4) {
        const float32x4_t magnitude = vld1q_f32(out + j);
        const Bounds bounds = decibel_bounds(magnitude);
        const uint32x4_t certain =
            vandq_u32(in_range(magnitude), vceqq_f32(bounds.low, bounds.high));
        if (all_set(certain)) {
            vst1q_f32(out + j, bounds.low);
            continue;
        }
        float level[4];
        std::uint32_t lane_certain[4];
        vst1q_f32(level, bounds.low);
        vst1q_u32(lane_certain, certain);
        for (int lane = 0; lane < 4; ++lane) {
            out[j + lane] = lane_certain[lane] != 0 ? level[lane] : decibels(out[j + lane]);
        }
    }
    for (int j = whole; j < present; ++j) {
        out[j] = decibels(out[j]);
    }
    std::fill(out + present, out + count, -100.0F);
}

}  // namespace tz_dnnvad
