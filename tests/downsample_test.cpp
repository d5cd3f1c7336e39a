#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <complex>
#include <cstddef>
#include <memory>
#include <random>
#include <utility>
#include <vector>

#include "dnnvad/dnn_vad.h"

namespace {

using Samples = std::vector<short>;

constexpr short kUntouched = -12345;

std::size_t at(int index) { return static_cast<std::size_t>(index); }

Samples noise(int count) {
    std::mt19937 random(5);
    std::uniform_int_distribution<int> value(-8000, 8000);
    Samples samples(at(count));
    std::generate(samples.begin(), samples.end(),
                  [&] { return static_cast<short>(value(random)); });
    return samples;
}

// The filter over a whole signal from rest. Products are rounded on their own and added with k
// going up.
template <typename Number>
std::vector<Number> filtered(const Samples& signal) {
    std::vector<Number> y(signal.size());
    for (int t = 0; t < static_cast<int>(signal.size()); ++t) {
        Number forward = 0;
        Number backward = 0;
        for (int k = 0; k < 20 && k <= t; ++k) {
            forward +=
                static_cast<Number>(tz_dnnvad::b[k]) * static_cast<Number>(signal[at(t - k)]);
        }
        for (int k = 0; k < 19 && k < t; ++k) {
            backward += static_cast<Number>(tz_dnnvad::a[k]) * y[at(t - 1 - k)];
        }
        y[at(t)] = forward - backward;
    }
    return y;
}

short stored(float value) { return static_cast<short>(static_cast<long long>(value)); }

class DownSample : public testing::Test {
protected:
    // Runs one call and returns the whole destination ring.
    Samples run(const Samples& source, int source_pos, int count, int destination_pos) {
        Samples destination(source.size() / 2, kUntouched);
        EXPECT_EQ(
            session_->down_sample(source.data(), source_pos, count, destination.data(),
                                  destination_pos, &reported_, static_cast<int>(source.size())),
            0);
        return destination;
    }

    std::unique_ptr<tz_dnnvad::CMFE> session_ = std::make_unique<tz_dnnvad::CMFE>();
    int reported_ = -1;
};

// The tables against what the filter is for: all zeros at 8 kHz, unity gain at 0 Hz, level to
// 3.75 kHz, silent from 4.5 kHz. In between, single-precision coefficients leave a dip and a narrow
// peak, which shows a change in the last digit of almost any of them.
TEST(DownSampleTables, GiveTheLowPass) {
    double binomial = 1.0;
    for (int k = 0; k < 20; ++k) {
        EXPECT_NEAR(static_cast<double>(tz_dnnvad::b[k]) / binomial, 1.02615722e-07, 1e-14) << k;
        binomial *= (19.0 - k) / (k + 1.0);
    }
    EXPECT_EQ(tz_dnnvad::a[19], 0.0F);
    const auto gain_db = [](double hertz) {
        std::complex<double> above = 0.0;
        std::complex<double> below = 1.0;
        for (int k = 0; k < 20; ++k) {
            const double step = -std::acos(-1.0) * hertz / 8000.0;
            above += std::polar(static_cast<double>(tz_dnnvad::b[k]), step * k);
            below += static_cast<double>(tz_dnnvad::a[k]) * std::polar(1.0, step * (k + 1));
        }
        return 20.0 * std::log10(std::abs(above / below));
    };
    EXPECT_NEAR(gain_db(0.0), 20.0 * std::log10(0.9998), 0.001);
    for (double hertz = 0.0; hertz <= 7000.0; hertz += 10.0) {
        if (hertz <= 3750.0) {
            EXPECT_NEAR(gain_db(hertz), -0.2, 1.0) << hertz;
        } else if (hertz >= 4500.0) {
            EXPECT_LT(gain_db(hertz), -95.0) << hertz;
        }
    }
    EXPECT_NEAR(gain_db(3980.0), 7.928, 0.001);
    EXPECT_NEAR(gain_db(4200.0), -54.0, 1.0);
}

// Rounding noise triples with each sample, so a comparison with exact arithmetic is sharp only right
// after a step: here in the last 18 samples of the block, all of which the history still shows.
TEST_F(DownSample, StepResponseAgreesWithDoublePrecision) {
    Samples block(80, 0);
    std::fill_n(block.end() - 18, 18, static_cast<short>(10000));
    Samples source(320, 0);
    std::copy(block.begin(), block.end(), source.begin() + 80);
    run(source, 80, 80, 0);
    const std::vector<double> expected = filtered<double>(block);
    ASSERT_GT(expected[79], 9000.0);
    for (int k = 0; k < 19; ++k) {
        EXPECT_NEAR(static_cast<double>(session_->ds_y_hist[k]), expected[at(79 - k)], 2.0) << k;
    }
}

// To the bit, over many calls: the histories carry over, sums keep their order, nothing is fused.
TEST_F(DownSample, CallsContinueOneSignal) {
    const Samples source = noise(8000);
    const std::vector<float> expected = filtered<float>(Samples(source.begin() + 80, source.end()));
    for (int position = 80; position < 8000; position += reported_ * 2) {
        const Samples destination =
            run(source, position, position % 400 == 0 ? 240 : 80, position / 2);
        for (int k = 0; k < reported_; ++k) {
            ASSERT_EQ(destination[at(position / 2 + k)],
                      stored(expected[at(position - 80 + 2 * k)]));
        }
    }
    for (int k = 1; k < 20; ++k) {
        EXPECT_EQ(session_->ds_x_hist[k], source[at(8000 - k)]);
        EXPECT_EQ(session_->ds_y_hist[k - 1], expected[at(7920 - k)]);
    }
    session_->mfeReset();
    const auto is_zero = [](float x) { return x == 0.0F; };
    EXPECT_TRUE(std::all_of(session_->ds_x_hist, session_->ds_x_hist + 20, is_zero));
    EXPECT_TRUE(std::all_of(session_->ds_y_hist, session_->ds_y_hist + 19, is_zero));
}

TEST_F(DownSample, PositionZeroLetsTheFirstSamplesPass) {
    const Samples source = noise(320);
    const std::vector<float> expected = filtered<float>(Samples(source.begin() + 19, source.end()));
    for (const int destination_pos : {0, 140, -20}) {
        session_->mfeReset();
        const Samples destination = run(source, 0, 160, destination_pos);
        for (int k = 0; k < 80; ++k) {
            EXPECT_EQ(destination[at((destination_pos + k + 160) % 160)],
                      k < 10 ? source[at(2 * k)] : stored(expected[at(2 * k - 19)]))
                << destination_pos << " " << k;
        }
    }
    EXPECT_EQ(run(source, 0, 80, 0)[3], source[6]);    // in every call
    EXPECT_NE(run(source, 320, 80, 0)[3], source[6]);  // but for position 0 alone
}

TEST_F(DownSample, APartialBlockIsFilledWithZeros) {
    Samples source = noise(320);
    const Samples part = run(source, 80, 100, 0);
    EXPECT_EQ(reported_, 50);
    session_->mfeReset();
    std::fill(source.begin() + 180, source.end(), static_cast<short>(0));
    EXPECT_EQ(run(source, 80, 160, 0), part);
    const Samples one = run(source, 80, 1, 0);
    EXPECT_EQ(reported_, 0);
    EXPECT_EQ(std::count(one.begin(), one.end(), kUntouched), 120);
}

// Source positions wrap, also negative ones and in rings shorter than a block. A destination block
// that wraps continues with work sample q, where q is its place in the ring: an output below 40,
// then filtered samples, zeros from 80 on.
TEST_F(DownSample, RingsWrap) {
    const Samples all = noise(320);
    for (const auto& [capacity, q] :
         {std::pair<int, int>{200, 70}, {200, 60}, {120, 30}, {140, 50}, {320, 130}, {86, 3}}) {
        const Samples source(all.begin(), all.begin() + capacity);
        Samples unrolled;
        for (int j = 0; j < 80; ++j) {
            unrolled.push_back(source[at((150 + j) % capacity)]);
        }
        const std::vector<float> y = filtered<float>(unrolled);
        for (const int laps : {0, 1, -3}) {
            session_->mfeReset();
            const Samples destination =
                run(source, 150 + laps * capacity, 80, q + laps * (capacity / 2));
            const int until_end = std::min(40, capacity / 2 - q);
            for (int k = 0; k < 40; ++k) {
                const int work = k < until_end ? k : q + k - until_end;
                const short expected =
                    work >= 80 ? short{0} : stored(y[at(work < 40 ? 2 * work : work)]);
                EXPECT_EQ(destination[at((q + k) % (capacity / 2))], expected)
                    << capacity << " " << k;
            }
        }
    }
    const Samples tiny(all.begin(), all.begin() + 10);
    run(tiny, 3, 80, 0);
    EXPECT_EQ(session_->ds_x_hist[1], tiny[(3 + 79) % 10]);
    EXPECT_EQ(session_->ds_x_hist[2], tiny[(3 + 78) % 10]);
}

// With a silent source the next output is -a[0] times the latest one.
TEST_F(DownSample, StoresTheLowBitsOfTheTruncatedValue) {
    const std::pair<double, int> cases[] = {{40000.7, -25536}, {-40000.7, 25536}, {-3.9, -3},
                                            {3.9, 3},          {1e12, -1},        {-1e12, 0}};
    for (const auto& [value, expected] : cases) {
        session_->mfeReset();
        session_->ds_y_hist[0] = static_cast<float>(value / -static_cast<double>(tz_dnnvad::a[0]));
        EXPECT_EQ(run(Samples(160, 0), 80, 80, 0)[0], expected) << value;
    }
}

TEST_F(DownSample, NothingToDo) {
    const Samples source(160, 1000);
    Samples destination(80, kUntouched);
    const auto report = [&](const short* from, short* to, int count, int capacity) {
        int reported = -1;
        EXPECT_EQ(session_->down_sample(from, 80, count, to, 0, &reported, capacity), 0);
        return reported;
    };
    EXPECT_EQ(report(source.data(), destination.data(), 0, 160), 0);
    EXPECT_EQ(report(source.data(), destination.data(), INT_MIN, 160), 0);
    EXPECT_EQ(report(nullptr, destination.data(), 80, 160), 0);
    EXPECT_EQ(report(source.data(), nullptr, 80, 160), 0);
    EXPECT_EQ(report(source.data(), destination.data(), 80, 1), 0);
    EXPECT_EQ(report(source.data(), destination.data(), 80, -160), 0);
    EXPECT_EQ(session_->down_sample(source.data(), 80, 80, destination.data(), 0, nullptr, 160), 0);
    EXPECT_EQ(session_->ds_x_hist[1], 0.0F);
    EXPECT_EQ(report(source.data(), destination.data(), 80, 2), 40);  // the smallest ring
    EXPECT_EQ(std::count(destination.begin(), destination.end(), kUntouched), 79);
}

}  // namespace
