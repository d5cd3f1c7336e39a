// Fused dot products of short rows, to the bit, where a second rounding would show.
#include "dnnvad/arch/fused.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

namespace {

// Row r of a column holds a[r]; expects fma(a[r], x, start[r]) of all four rows at once.
void expect_fused(const float (&start)[4], const float (&a)[4], float x) {
    float rows[4][2];
    for (int r = 0; r < 4; ++r) {
        rows[r][0] = start[r];
        rows[r][1] = a[r];
    }
    const float factors[2] = {1.0F, x};
    float sums[4];
    vst1q_f32(sums, tz_dnnvad::fused_products(rows[0], rows[1], rows[2], rows[3], factors, 2));
    for (int r = 0; r < 4; ++r) {
        const float expected = std::fma(a[r], x, start[r]);
        EXPECT_TRUE(sums[r] == expected || (std::isnan(sums[r]) && std::isnan(expected)))
            << std::hexfloat << a[r] << " * " << x << " + " << start[r] << " = " << expected
            << ", not " << sums[r];
    }
}

TEST(FusedProducts, SumsJustBesideTheMiddleOfTwoFloats) {
    // (1 + 2^-12) (1 - 2^-12 + 2^-24) is 1 + 2^-36: a hair that single rounding sees.
    const float a = 1.0F + 0x1p-12F;
    const float x = 1.0F - 0x1p-12F + 0x1p-24F;
    for (const float scale : {1.0F, 0x1p-100F, 0x1p100F, 0x1p-125F}) {
        // Half a unit in the last place of the start, and a hair: up; without the hair: to even.
        expect_fused({scale, -scale, scale, 0.0F},
                     {a * 0x1p-24F * scale, -a * 0x1p-24F * scale, 0x1p-24F * scale, a}, x);
    }
    // The same beside a denormal middle, half of 2^-149 above 2^-127; and at the upper end.
    const float max = std::numeric_limits<float>::max();
    expect_fused({0x1p-127F, -0x1p-127F, max, max}, {a * 0x1p-100F, -a * 0x1p-100F, 0.0F, 0.0F},
                 x * 0x1p-50F);
    expect_fused({max, -max, max, max}, {a * 0x1p100F, -a * 0x1p100F, 0x1p100F, -a * 0x1p100F},
                 x * 0x1p3F);
}

TEST(FusedProducts, AnyBits) {
    std::mt19937 generator(1);
    const auto any = [&] {
        const auto bits = static_cast<std::uint32_t>(generator());
        float value;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    };
    for (int i = 0; i < 100000; ++i) {
        expect_fused({any(), any(), any(), any()}, {any(), any(), any(), any()}, any());
    }
    const float row[3] = {2.0F, 3.0F, 5.0F};
    float sums[4];
    for (int count = 0; count <= 3; ++count) {
        vst1q_f32(sums, tz_dnnvad::fused_products(row, row, row, row, row, count));
        EXPECT_EQ(sums[3], (std::vector<float>{0.0F, 4.0F, 13.0F, 38.0F})[count]);
    }
}

}  // namespace
