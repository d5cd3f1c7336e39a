// The network's arithmetic, to the bit, against plain readings of the same steps.
#include <algorithm>
#include <climits>
#include <cmath>
#include <random>
#include <vector>

#include "dnnvad/vad_nn.h"
#include "model_writer.h"
#include "test_support.h"

namespace {

using namespace tz_dnnvad;
using Floats = std::vector<float>;

Floats random_floats(std::size_t count, float size, unsigned seed) {
    std::mt19937 generator(seed);
    std::uniform_real_distribution<float> value(-size, size);
    Floats values(count);
    std::generate(values.begin(), values.end(), [&] { return value(generator); });
    return values;
}

// Exponent and mantissa of 2^e (1 + m / 2^20) are the integer and the fractional part of x / ln 2 in
// steps of 2^-20, shifted down by 60801 of them.
double fast_exp(double x) {
    const double steps = (std::trunc(x * 1512775.3951951857) - 60801.0) / 1048576.0;
    return std::ldexp(1.0 + steps - std::floor(steps), static_cast<int>(std::floor(steps)));
}

float fast_sigmoid(float x) {
    const double e = std::abs(x) < 700.0F ? fast_exp(-double{x}) : double{std::exp(-x)};
    return static_cast<float>(1.0 / (1.0 + e));
}

Floats softmax(const Floats& in, bool fast) {
    const float max = *std::max_element(in.begin(), in.end());
    Floats out;
    float sum = 0.0F;
    for (const float value : in) {
        const float t = value - max;
        out.push_back(fast && t > -700.0F ? static_cast<float>(fast_exp(t)) : std::exp(t));
        sum += out.back();
    }
    for (float& value : out) {
        value *= 1.0F / sum;
    }
    return out;
}

float lane_product(const float* row, const float* x, int length) {
    float lane[4] = {}, tail = 0.0F;
    for (int k = 0; k < length; ++k) {
        if (k < length / 4 * 4) {
            lane[k % 4] += row[k] * x[k];
        } else {
            tail = std::fma(row[k], x[k], tail);
        }
    }
    return ((lane[0] + lane[1]) + (lane[2] + lane[3])) + tail;
}

TEST(Kernels, MatrixTimesVectorInItsStatedOrder) {
    const Floats a = random_floats(std::size_t{11} * 70, 3.0F, 1), x = random_floats(70, 2.0F, 2);
    for (int p = 0; p <= 67; p += p < 18 ? 1 : 7) {
        for (const int m : {0, 1, 3, 4, 5, 11}) {
            Floats y(12, -1.0F), expected(12, -1.0F);
            for (int i = 0; i < m; ++i) {
                expected[static_cast<std::size_t>(i)] =
                    lane_product(a.data() + i * 70, x.data(), p);
            }
            matrix_product_neon(a.data(), m, 70, x.data(), p, 5, y.data());
            ASSERT_EQ(y, expected) << m << " rows of " << p;
        }
    }
}

TEST(Kernels, Products) {
    const test::TempFile file(test::random_model({1, 1}).bytes());
    DNN net(nullptr, file.path());
    const Floats a = random_floats(15, 1.0F, 3), b = random_floats(20, 1.0F, 4);
    Floats c(12, 9.0F), expected(12);
    float fused = 0.0F;
    for (std::size_t i = 0; i < 60; ++i) {
        float& sum = expected[i / 20 * 4 + i % 4];
        sum = std::fma(a[i / 20 * 5 + i / 4 % 5], b[i % 20], sum);
    }
    EXPECT_EQ(net.matrix_product(a.data(), 3, 5, b.data(), 4, 4, c.data()), -1);
    EXPECT_EQ(native_matrix_product(a.data(), 3, 4, b.data(), 5, 1, c.data()), -1);
    EXPECT_EQ(c, Floats(12, 9.0F));
    EXPECT_EQ(net.matrix_product(a.data(), 3, 5, b.data(), 5, 4, c.data()), 0);
    EXPECT_EQ(c, expected);
    EXPECT_EQ(native_matrix_product(a.data(), 3, 5, b.data(), 5, 1, c.data()), 0);
    EXPECT_EQ(c[2], lane_product(&a[10], b.data(), 5));
    for (std::size_t i = 0; i < 15; ++i) {
        fused = std::fma(a[i], b[i], fused);
    }
    EXPECT_EQ(net.dot_product(a.data(), b.data(), 15), fused);
    EXPECT_EQ(net.dot_product(a.data(), b.data(), -1), 0.0F);
}

TEST(Kernels, Sigmoids) {
    Floats x = {0.0F, 800.0F, -800.0F, 700.0F, -700.0F, 699.99994F, -699.99994F};
    for (const float size : {30.0F, 720.0F}) {
        const Floats more = random_floats(1000, size, 5);
        x.insert(x.end(), more.begin(), more.end());
    }
    const auto n = static_cast<unsigned>(x.size());
    Floats fast(n), exact(n), wider(n);
    qn_fe_sigmoid_vf_vf(n, x.data(), fast.data());
    qn_nv_sigmoid_vf_vf(n, x.data(), exact.data());
    native_sigmod(x.data(), wider.data(), static_cast<int>(n));
    for (unsigned i = 0; i < n; ++i) {
        ASSERT_EQ(fast[i], fast_sigmoid(x[i])) << x[i];
        ASSERT_EQ(exact[i], 1.0F / (std::exp(-x[i]) + 1.0F)) << x[i];
        ASSERT_EQ(wider[i], static_cast<float>(1.0 / (1.0 + double{std::exp(-x[i])}))) << x[i];
        ASSERT_NEAR(fast[i], wider[i], 0.012) << x[i];
    }
    EXPECT_NE(fast[0], 0.5F);
    EXPECT_EQ(fast[1], 1.0F);
    EXPECT_EQ(fast[2], 0.0F);
}

TEST(Kernels, ForwardAndItsSoftmaxSwitch) {
    for (const std::vector<int>& sizes : {std::vector<int>{13, 9}, {52, 7, 9}, {26, 64, 33, 6}}) {
        const test::Model model = test::random_model(sizes, 9);
        const test::TempFile file(model.bytes());
        DNN net(nullptr, file.path());
        for (const int math : {0, 3, 4, 7, 0}) {
            qn_math = math;
            Floats in = random_floats(static_cast<std::size_t>(sizes[0]), 4.0F, 10);
            Floats out(static_cast<std::size_t>(sizes.back()));
            EXPECT_EQ(net.forward(in.data(), 0, out.data()), 0);
            const float* weights = model.parameters.data();
            for (std::size_t k = 1; k < sizes.size(); ++k) {
                const float* const biases = weights + sizes[k - 1] * sizes[k];
                Floats sums;
                for (int r = 0; r < sizes[k]; ++r, weights += sizes[k - 1]) {
                    sums.push_back(lane_product(weights, in.data(), sizes[k - 1]) + biases[r]);
                }
                weights = biases + sizes[k];
                in = k + 1 == sizes.size() ? softmax(sums, (math & 4) != 0) : sums;
                if (k + 1 < sizes.size()) {
                    std::transform(sums.begin(), sums.end(), in.begin(), fast_sigmoid);
                }
            }
            EXPECT_EQ(out, in) << math;
        }
    }
    Floats wide = random_floats(9, 900.0F, 7);
    const Floats expected = softmax(wide, true);
    qn_fe_softmax_vf_vf(9, wide.data(), wide.data());
    EXPECT_EQ(wide, expected);
    qn_nv_softmax_vf_vf(0, nullptr, nullptr);
}

TEST(Kernels, Utilities) {
    const float x[] = {0.1F, 3.0F};
    float out[2];
    qn_nv_muladd_vffvf_vf(2, x, 10.1F, x, out);
    EXPECT_EQ(out[0], std::fma(0.1F, 10.1F, 0.1F));
    EXPECT_EQ(qn_findexp_f_i(-5.0F), 3);
    EXPECT_EQ(qn_findexp_f_i(0.3F), -1);
    EXPECT_EQ(qn_findexp_f_i(0.0F), INT_MIN);
    EXPECT_EQ(qn_findexp_f_i(NAN), 0);
    double words[2] = {1.0, -2.5};
    qn_swapb_vd_vd(2, words, words);
    EXPECT_EQ(words[0], std::ldexp(0xF03F, -1074));
    qn_swapb_vd_vd(2, words, words);
    EXPECT_EQ(words[1], -2.5);
}

}  // namespace
