// The fused multiply-add, to the bit, where a second rounding would show.
#include "dnnvad/arch/fused.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>

namespace {

void expect_fused(float a, float b, float c) {
    const float expected = std::fma(a, b, c);
    const float sum = tz_dnnvad::fused_multiply_add(a, b, c);
    EXPECT_TRUE(sum == expected || (std::isnan(sum) && std::isnan(expected)))
        << std::hexfloat << a << " * " << b << " + " << c << " = " << expected << ", not " << sum;
}

TEST(FusedMultiplyAdd, SumsJustBesideTheMiddleOfTwoFloats) {
    // (1 + 2^-12) (1 - 2^-12 + 2^-24) is 1 + 2^-36: a hair that single rounding sees.
    const float a = 1.0F + 0x1p-12F;
    const float x = 1.0F - 0x1p-12F + 0x1p-24F;
    for (const float scale : {1.0F, 0x1p-100F, 0x1p100F, 0x1p-125F}) {
        // Half a unit in the last place beside the sum, and a hair: up; without the hair: to even.
        expect_fused(a * 0x1p-24F * scale, x, scale);
        expect_fused(-a * 0x1p-24F * scale, x, -scale);
        expect_fused(0x1p-24F * scale, x, scale);
    }
    // The same beside a denormal middle, half of 2^-149 above 2^-127; and at the upper end.
    expect_fused(a * 0x1p-100F, x * 0x1p-50F, 0x1p-127F);
    expect_fused(-a * 0x1p-100F, x * 0x1p-50F, -0x1p-127F);
    const float max = std::numeric_limits<float>::max();
    expect_fused(a * 0x1p100F, x * 0x1p3F, max);
    expect_fused(-a * 0x1p100F, x * 0x1p3F, max);
}

TEST(FusedMultiplyAdd, AnyBits) {
    std::mt19937 generator(1);
    const auto any = [&] {
        const auto bits = static_cast<std::uint32_t>(generator());
        float value;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    };
    for (int i = 0; i < 400000; ++i) {
        expect_fused(any(), any(), any());
    }
}

}  // namespace
