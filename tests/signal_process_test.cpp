#include "dnnvad/feat/signal_process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <complex>
#include <cstdlib>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "dnnvad/aligned.h"
#include "dnnvad/arch/real_fft.h"
#include "dnnvad/feat/log_spectrum.h"

namespace {

using namespace tz_dnnvad;
using Complex = std::complex<double>;
using Floats = std::vector<float>;

constexpr double kPi = 3.14159265358979323846;
constexpr float kSentinel = 12345.0F;

Floats noise(std::size_t count, unsigned seed, double level = 8000.0) {
    std::mt19937 generator(seed);
    std::normal_distribution<double> normal(0.0, level);
    Floats values(count);
    for (float& value : values) {
        value = static_cast<float>(normal(generator));
    }
    return values;
}

// The values as a header vector, with a sentinel behind the last.
Floats with_header(const Floats& values) {
    Floats vector(1, static_cast<float>(values.size()));
    vector.insert(vector.end(), values.begin(), values.end());
    vector.push_back(kSentinel);
    return vector;
}

// sum of z[m] e^(sign 2 pi i m k / n), straight from the definition.
std::vector<Complex> dft(const std::vector<Complex>& z, double sign) {
    const std::size_t n = z.size();
    std::vector<Complex> bins(n);
    for (std::size_t k = 0; k < n; ++k) {
        for (std::size_t m = 0; m < n; ++m) {
            bins[k] += z[m] * std::polar(1.0, sign * 2.0 * kPi * static_cast<double>(m * k % n) /
                                                  static_cast<double>(n));
        }
    }
    return bins;
}

// Largest error over the bins, relative to the root mean square of the spectrum.
double spectrum_error(const std::vector<Complex>& exact, const std::vector<Complex>& found) {
    double energy = 0.0;
    double worst = 0.0;
    for (std::size_t k = 0; k < exact.size(); ++k) {
        energy += std::norm(exact[k]);
        worst = std::max(worst, std::abs(exact[k] - found[k]));
    }
    return worst / std::sqrt(energy / static_cast<double>(exact.size()));
}

TEST(RealFft, AgreesWithDftAndKeepsItsInput) {
    for (int n = 8; n <= 1024; n *= 2) {
        const std::size_t size = static_cast<std::size_t>(n);
        const Floats samples = noise(size, static_cast<unsigned>(n));
        const AlignedFloats in = make_aligned_floats(size);
        const AlignedFloats out = make_aligned_floats(size + 3);
        std::copy(samples.begin(), samples.end(), in.get());
        out[size + 2] = kSentinel;
        RealFft* plan = real_fft_create(n);
        ASSERT_NE(plan, nullptr) << n;
        real_fft_forward(plan, in.get(), out.get());
        real_fft_destroy(plan);

        std::vector<Complex> exact = dft({samples.begin(), samples.end()}, -1.0);
        exact.resize(size / 2 + 1);
        std::vector<Complex> found;
        for (std::size_t k = 0; k <= size / 2; ++k) {
            found.emplace_back(out[2 * k], out[2 * k + 1]);
        }
        EXPECT_LT(spectrum_error(exact, found), 2e-6) << n;
        EXPECT_TRUE(std::equal(samples.begin(), samples.end(), in.get())) << n;
        EXPECT_EQ(out[size + 2], kSentinel) << n;
    }
    for (const int n : {-8, 0, 2, 4, 7, 24, 200}) {
        EXPECT_EQ(real_fft_create(n), nullptr) << n;
    }
    real_fft_destroy(nullptr);
}

double radix2_error(int n, int sign) {
    const std::size_t size = static_cast<std::size_t>(n);
    Floats x = noise(size, 1);
    Floats y = noise(size, 2);
    std::vector<Complex> exact;
    for (std::size_t i = 0; i < size; ++i) {
        exact.emplace_back(x[i], y[i]);
    }
    exact = dft(exact, -sign);
    fft(sign * n, x.data(), y.data());
    const double scale = sign > 0 ? 1.0 : n;
    std::vector<Complex> found;
    for (std::size_t i = 0; i < size; ++i) {
        found.emplace_back(x[i] * scale, y[i] * scale);
    }
    return spectrum_error(exact, found);
}

TEST(Radix2Fft, AgreesWithDftBothWays) {
    for (int n = 1; n <= 512; n *= 2) {
        for (const int sign : {1, -1}) {
            EXPECT_LT(radix2_error(n, sign), 1e-5) << n * sign;
        }
    }
    fft(0, nullptr, nullptr);
    EXPECT_LT(radix2_error(512, 1), 1e-5);  // tables made again
    for (const int n : {3, 6, -12, INT_MIN}) {
        float x = 1.0F;
        float y = 2.0F;
        fft(n, &x, &y);
        EXPECT_TRUE(x == 1.0F && y == 2.0F) << n;
    }
}

TEST(Radix2Fft, ThreadsWithDifferentSizesDoNotMeet) {
    std::vector<double> worst(3, 0.0);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < worst.size(); ++t) {
        threads.emplace_back([&worst, t] {
            for (int round = 0; round < 20; ++round) {
                worst[t] = std::max(worst[t], radix2_error(16 << t, 1));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_LT(*std::max_element(worst.begin(), worst.end()), 1e-5);
}

TEST(Radix2Fft, Tables) {
    std::vector<int> reversed(8);
    make_bitrev(8, reversed.data());
    EXPECT_EQ(reversed, (std::vector<int>{0, 4, 2, 6, 1, 5, 3, 7}));
    for (const int n : {4, 8, 64, 512}) {
        Floats sines(static_cast<std::size_t>(n + n / 4 + 1), kSentinel);
        make_sintbl(n, sines.data());
        for (int i = 0; i < n + n / 4; ++i) {
            EXPECT_NEAR(sines[static_cast<std::size_t>(i)], std::sin(2.0 * kPi * i / n), 2e-6);
        }
        EXPECT_EQ(sines.back(), kSentinel);
    }
}

TEST(RealftOnVectors, AgreesWithDftButForItsFirstPair) {
    for (std::size_t n = 2; n <= 512; n *= 2) {
        const Floats samples = noise(n, 3);
        Floats s = with_header(samples);
        realft(s.data());
        std::vector<Complex> exact = dft({samples.begin(), samples.end()}, 1.0);
        exact.resize(n / 2);
        std::vector<Complex> found;
        for (std::size_t k = 0; k < n / 2; ++k) {
            found.emplace_back(s[2 * k + 1], s[2 * k + 2]);
        }
        EXPECT_LT(spectrum_error(exact, found), 2e-6) << n;
        EXPECT_EQ(s[2], 0.0F);
        EXPECT_EQ(s.back(), kSentinel);
    }
    for (const float header : {6.0F, 1.0F, -8.0F, 3e38F, std::nanf("")}) {
        Floats s{header, 1.0F, 2.0F, 3.0F, 4.0F, 5.0F, 6.0F};
        realft(s.data());
        EXPECT_TRUE(s[1] == 1.0F && s[2] == 2.0F && s[6] == 6.0F) << header;
    }
}

TEST(FrameSteps, MeanIsSummedInFourLanes) {
    for (const std::size_t n : {std::size_t{0}, std::size_t{1}, std::size_t{7}, std::size_t{200}}) {
        Floats values = noise(n, 4);
        Floats vec = with_header(values);
        zero_mean_frame(vec.data(), static_cast<int>(n));
        float lane[4] = {};
        for (std::size_t i = 0; i < n; ++i) {
            lane[i % 4] = lane[i % 4] + values[i];
        }
        const float sum = lane[0] + lane[1] + lane[2] + lane[3];
        for (float& value : values) {
            value = value - sum * (1.0F / static_cast<float>(n));
        }
        EXPECT_EQ(vec, with_header(values)) << n;
    }
}

TEST(FrameSteps, PreEmphasisUsesEarlierPredecessors) {
    for (const std::size_t n : {std::size_t{1}, std::size_t{2}, std::size_t{6}, std::size_t{200}}) {
        const Floats values = noise(n, 5);
        Floats expected = values;
        for (std::size_t i = 1; i < n; ++i) {
            expected[i] = values[i] - 0.97F * values[i - 1];
        }
        expected[0] = (1.0F - 0.97F) * values[0];
        Floats s = with_header(values);
        pre_emphasise(s.data(), 0.97F, static_cast<int>(n));
        EXPECT_EQ(s, with_header(expected)) << n;
    }
}

TEST(FrameSteps, HammingWindow) {
    Floats window = with_header(Floats(200));
    GenHamWindow(window.data(), 200);
    EXPECT_FLOAT_EQ(window[1], 0.08F);
    EXPECT_FLOAT_EQ(window[200], 0.08F);
    EXPECT_NEAR(window[100], 0.99994, 1e-5);
    EXPECT_NEAR(window[101], 0.99994, 1e-5);
    for (const std::size_t n : {std::size_t{200}, std::size_t{400}, std::size_t{37}}) {
        const Floats values = noise(n, 6);
        Floats s = with_header(values);
        ham(s.data(), static_cast<int>(n));
        for (std::size_t i = 0; i < n; ++i) {
            const double phase = 2.0 * kPi * static_cast<double>(i) / static_cast<double>(n - 1);
            EXPECT_NEAR(s[i + 1], values[i] * (0.54 - 0.46 * std::cos(phase)), 0.02);
        }
        EXPECT_EQ(s.back(), kSentinel);
    }
    Floats again = with_header(Floats(200, 1.0F));
    ham(again.data(), 200);
    EXPECT_EQ(again, window);
}

struct Bank {
    explicit Bank(FBankInfo* fb) : info(fb) {}
    Bank(int frame, int rate, int channels, float low, float high, Boolean use_power = 1)
        : Bank(init_fbank(frame, 80, rate, channels, low, high, use_power, 0, 0, 1.0F, 0.0F,
                          0.0F)) {}
    ~Bank() { clear_fbank(info); }
    Bank(const Bank&) = delete;
    Bank& operator=(const Bank&) = delete;

    // Channel values of a frame, as a header vector with a sentinel.
    Floats run(const Floats& frame, Floats* spectrum = nullptr) {
        Floats s = with_header(frame);
        Floats fbank = with_header(Floats(static_cast<std::size_t>(info->numChans)));
        if (spectrum != nullptr) {
            wave_2_fbank(s.data(), fbank.data(), info, spectrum->data(),
                         static_cast<int>(spectrum->size()));
        } else {
            wave_2_fbank(s.data(), fbank.data(), info);
        }
        return fbank;
    }

    FBankInfo* info;
};

double mel(double hertz) { return 1127.0 * std::log(1.0 + hertz / 700.0); }

// The bank as a drawing of triangles, in double precision over the definition of the DFT.
std::vector<double> triangle_bank(const Floats& frame, std::size_t fft_length, double rate,
                                  int channels, double low, double high, bool power) {
    std::vector<Complex> padded(frame.begin(), frame.end());
    padded.resize(fft_length);
    const std::vector<Complex> bins = dft(padded, -1.0);
    const double spacing = rate / static_cast<double>(fft_length);
    const double width = (mel(high) - mel(low)) / (channels + 1);
    std::vector<double> sums(static_cast<std::size_t>(channels));
    for (std::size_t j = 1; j < fft_length / 2; ++j) {
        const double hertz = static_cast<double>(j) * spacing;
        // Bins whose nearest edge lies within half a spacing count as the rounding of the edge says.
        if (std::floor(low / spacing + 2.5) > static_cast<double>(j + 1) ||
            std::floor(high / spacing + 0.5) < static_cast<double>(j + 1)) {
            continue;
        }
        const double energy = power ? std::norm(bins[j]) : std::abs(bins[j]);
        for (int c = 1; c <= channels; ++c) {
            const double distance = std::abs(mel(hertz) - (mel(low) + c * width)) / width;
            sums[static_cast<std::size_t>(c - 1)] += std::max(0.0, 1.0 - distance) * energy;
        }
    }
    return sums;
}

TEST(FilterBank, AgreesWithTriangles) {
    struct Case {
        int frame, rate, channels;
        float low, high;
        Boolean power;
    };
    for (const Case& c : {Case{200, 8000, 26, 40, 3800, 1}, Case{400, 16000, 40, 20, 7600, 1},
                          Case{200, 8000, 10, 300, 3400, 0}, Case{1000, 44100, 23, 0, 9000, 1}}) {
        Bank bank(c.frame, c.rate, c.channels, c.low, c.high, c.power);
        const Floats frame = noise(static_cast<std::size_t>(c.frame), 7);
        const Floats found = bank.run(frame);
        const std::vector<double> expected =
            triangle_bank(frame, static_cast<std::size_t>(bank.info->fftN), c.rate, c.channels,
                          c.low, c.high, c.power != 0);
        for (std::size_t i = 0; i < expected.size(); ++i) {
            EXPECT_NEAR(found[i + 1] / expected[i], 1.0, 3e-4) << c.rate << " channel " << i + 1;
        }
        EXPECT_EQ(found.back(), kSentinel);
    }
}

TEST(FilterBank, BandAndSlopes) {
    Bank bank(200, 8000, 26, 40.0F, 3800.0F);
    const FBankInfo& fb = *bank.info;
    EXPECT_EQ(fb.fftN, 256);
    EXPECT_EQ(fb.fres, static_cast<float>(8000.0 / (256.0 * 700.0)));
    EXPECT_EQ(fb.klo, 3);
    EXPECT_EQ(fb.khi, 122);
    EXPECT_EQ(fb.cf[0], 27.0F);
    EXPECT_NEAR(fb.cf[27], mel(3800.0), 1e-3);
    EXPECT_EQ(fb.loChan[0], 128);
    EXPECT_EQ(fb.loWt[0], 128.0F);
    EXPECT_EQ(fb.loChan[2], -1);
    EXPECT_EQ(fb.loChan[3], 0);
    EXPECT_EQ(fb.loChan[122], 26);
    EXPECT_EQ(fb.loChan[123], -1);
    EXPECT_EQ(fb.x[0], 256.0F);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(fb.x + 1) % 16, 0U);

    Bank open(400, 16000, 40, -1.0F, -1.0F);
    EXPECT_EQ(open.info->klo, 2);
    EXPECT_EQ(open.info->khi, 256);
    EXPECT_NEAR(open.info->cf[41], mel(8000.0), 1e-2);
    Bank doubled(init_fbank(256, 80, 8000, 26, 40.0F, 3800.0F, 1, 1, 1, 1.0F, 0.0F, 0.0F));
    EXPECT_EQ(doubled.info->fftN, 512);
}

TEST(FilterBank, SpectrumIsBitExactAndLogsAreFloored) {
    Bank bank(200, 8000, 26, 40.0F, 3800.0F);
    Floats spectrum(130, kSentinel);
    const Floats sums = bank.run(noise(200, 8), &spectrum);
    for (std::size_t j = 0; j < 128; ++j) {
        const float re = bank.info->x[2 * j + 1];
        const float im = bank.info->x[2 * j + 2];
        const double magnitude = sqrtf(re * re + im * im);
        ASSERT_EQ(spectrum[j], static_cast<float>(10.0 * log10(magnitude + 1e-10))) << j;
    }
    EXPECT_EQ(spectrum[128], -100.0F);  // beyond the spectrum
    bank.info->takeLogs = 1;
    const Floats logs = bank.run(noise(200, 8));
    for (std::size_t i = 1; i <= 26; ++i) {
        EXPECT_EQ(logs[i], logf(sums[i]));
    }
    const Floats silence = bank.run(Floats(200), &spectrum);
    EXPECT_EQ(*std::min_element(silence.begin() + 1, silence.end() - 1), -15.942385F);
    EXPECT_EQ(*std::max_element(silence.begin() + 1, silence.end() - 1), -15.942385F);
    EXPECT_EQ(spectrum, Floats(130, -100.0F));
}

TEST(FilterBank, LinePerFrameUnlessTransformIs256) {
    Bank narrow(200, 8000, 26, 40.0F, 3800.0F);
    Bank wide(400, 16000, 40, 40.0F, 7600.0F);
    testing::internal::CaptureStdout();
    narrow.run(Floats(200));
    wide.run(Floats(400));
    wide.run(Floats(400));
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "info->fftN 512\ninfo->fftN 512\n");
}

TEST(FilterBank, Warping) {
    // Below the lower cut, between the cuts, above the upper cut; both joins are continuous.
    EXPECT_FLOAT_EQ(WarpFreq(300, 3000, 1000, 0, 4000, 1.25F), 800.0F);
    EXPECT_FLOAT_EQ(WarpFreq(300, 3000, 4000, 0, 4000, 1.25F), 4000.0F);
    EXPECT_FLOAT_EQ(WarpFreq(300, 3000, 100, 100, 4000, 1.25F), 100.0F);
    const float upper = 3000.0F * 2.0F / 1.8F;
    EXPECT_NEAR(WarpFreq(300, 3000, upper + 0.01F, 0, 4000, 1.25F), 0.8F * upper, 0.1);
    const float lower = 300.0F * 2.0F / 1.8F;
    EXPECT_NEAR(WarpFreq(300, 3000, lower - 0.01F, 100, 4000, 1.25F), 0.8F * lower, 0.1);
    EXPECT_EQ(WarpFreq(300, 3000, 1234.5F, 0, 4000, 1.0F), 1234.5F);

    Bank bank(init_fbank(200, 80, 8000, 10, 100.0F, 3900.0F, 1, 0, 0, 1.25F, 4000.0F, 8000.0F));
    // A cut beyond the band bends every centre downwards, the upper edge too.
    EXPECT_LT(bank.info->cf[11], mel(3900.0) - 10.0);
    EXPECT_EQ(bank.info->loChan[bank.info->khi], 11);
    const Floats found = bank.run(noise(200, 9));
    EXPECT_EQ(found.back(), kSentinel);
    EXPECT_GT(found[10], 0.0F);
}

TEST(FilterBank, OddDesignsStayInBounds) {
    const float big = 2e9F;
    const float nan = std::nanf("");
    for (const int frame : {-1, 0, 1, 2, 3, 4, 5, 8}) {
        Bank bank(frame, 8000, 3, 0.0F, -1.0F);
        const Floats values = noise(static_cast<std::size_t>(std::max(frame, 0)), 10);
        Floats s = with_header(values);
        s[0] = static_cast<float>(frame);
        Floats fbank = with_header(Floats(3));
        wave_2_fbank(s.data(), fbank.data(), bank.info);
        std::vector<Complex> padded(values.begin(), values.end());
        padded.resize(static_cast<std::size_t>(bank.info->fftN));
        const std::vector<Complex> exact = dft(padded, -1.0);
        for (std::size_t j = 0; j < exact.size() / 2; ++j) {
            EXPECT_NEAR(bank.info->x[2 * j + 1], exact[j].real(), 0.05) << frame;
            EXPECT_NEAR(bank.info->x[2 * j + 2], exact[j].imag(), 0.05) << frame;
        }
    }
    for (const float low : {-1.0F, 40.0F, big, nan}) {
        for (const float high : {-1.0F, 0.0F, 39.0F, big, nan}) {
            for (const int rate : {INT_MIN, -8000, 0, 1, 8000, INT_MAX}) {
                Bank bank(200, rate, 26, low, high);
                EXPECT_EQ(bank.run(noise(200, 11)).back(), kSentinel);
            }
        }
    }
    Bank none(200, 8000, 0, 40.0F, 3800.0F);
    EXPECT_EQ(none.run(noise(200, 12)), (Floats{0.0F, kSentinel}));
    Bank fewer(200, 8000, -5, 40.0F, 3800.0F);
    Floats s = with_header(noise(200, 13));
    Floats fbank{-5.0F, kSentinel};
    wave_2_fbank(s.data(), fbank.data(), fewer.info);
    EXPECT_EQ(fbank.back(), kSentinel);
}

TEST(LogSpectrum, EqualsTheLibraryFunctionEverywhere) {
    Floats power = {0.0F,       1.0F,   0.99999994F,
                    1.0000001F, 1e-45F, 1.17549435e-38F,
                    1e-20F,     3e38F,  std::numeric_limits<float>::infinity()};
    std::mt19937 generator(14);
    for (int i = 0; i < 200000; ++i) {
        // Even over the exponents, then thick around magnitude 1, where the result is near 0.
        power.push_back(std::ldexp(std::uniform_real_distribution<float>(1, 2)(generator),
                                   std::uniform_int_distribution<int>(-70, 70)(generator)));
        power.push_back(1.0F + std::uniform_real_distribution<float>(-1e-4F, 1e-4F)(generator));
    }
    const int count = static_cast<int>(power.size());
    Floats found(power.size());
    write_log_spectrum(power.data(), count, found.data(), count);
    for (std::size_t i = 0; i < power.size(); ++i) {
        const double magnitude = sqrtf(power[i]);
        ASSERT_EQ(found[i], static_cast<float>(10.0 * log10(magnitude + 1e-10))) << power[i];
    }
}

TEST(Cepstral, RegressionOfSequences) {
    for (const int frames : {1, 2, 3, 4, 5, 9}) {
        const int dim = 30;
        Floats data = noise(static_cast<std::size_t>(frames * dim), 15, 1.0);
        const Floats before = data;
        add_regress(data.data(), frames, dim);
        const auto at = [&](int t, int i) {
            return static_cast<double>(
                before[static_cast<std::size_t>(std::clamp(t, 0, frames - 1) * dim + i)]);
        };
        for (int t = 0; t < frames; ++t) {
            for (int i = 0; i < dim; ++i) {
                const bool regression = i >= 13 && i < 26;
                const double expected = regression
                                            ? (at(t + 1, i - 13) - at(t - 1, i - 13) +
                                               2.0 * (at(t + 2, i - 13) - at(t - 2, i - 13))) /
                                                  10.0
                                            : at(t, i);
                EXPECT_NEAR(data[static_cast<std::size_t>(t * dim + i)], expected, 1e-6);
            }
        }
    }
    Floats narrow(2 * 25, 1.0F);
    Regress(narrow.data(), 0, 0, 2, 25);
    EXPECT_EQ(narrow, Floats(2 * 25, 1.0F));
}

TEST(Cepstral, Lifter) {
    Floats window = with_header(Floats(12));
    GenCepLifterWindow(window.data(), 12, 22);
    for (int i = 1; i <= 12; ++i) {
        EXPECT_NEAR(window[static_cast<std::size_t>(i)], 1.0 + 11.0 * std::sin(kPi * i / 22), 1e-5);
    }
    Floats frame = with_header(Floats(13, 2.0F));
    WeightCepstrum(frame.data(), 12, 22);
    for (std::size_t i = 1; i <= 12; ++i) {
        EXPECT_EQ(frame[i], 2.0F * window[i]);
    }
    EXPECT_EQ(frame[13], 2.0F);
}

TEST(Cepstral, PlpRecord) {
    Bank bank(200, 8000, 26, 40.0F, 3800.0F);
    PLPInfo* plp = InitPLP(bank.info, 12);
    EXPECT_EQ(plp->vecA[0], 13.0F);
    EXPECT_EQ(plp->vecB[0], 13.0F);
    EXPECT_EQ(plp->spareVec, nullptr);
    EXPECT_EQ(plp->compressFact, 0.33333334F);
    EXPECT_EQ(plp->eql[0], 26.0F);
    for (int i = 1; i <= 26; ++i) {
        const double hertz = 700.0 * (std::exp(bank.info->cf[i] / 1127.0) - 1.0);
        const double f2 = hertz * hertz;
        const double ratio = f2 / (f2 + 1.6e5);
        EXPECT_NEAR(plp->eql[i] / (ratio * ratio * (f2 + 1.44e6) / (f2 + 9.61e6)), 1.0, 2e-5);
    }
    for (int k = 0; k <= 12; ++k) {
        EXPECT_EQ(plp->cm[k][1], 1.0);
        EXPECT_NEAR(plp->cm[k][6], 2.0 * std::cos(kPi * 5 * k / 27), 1e-12);
        EXPECT_NEAR(plp->cm[k][28], std::cos(kPi * k), 1e-12);
    }
    EXPECT_NE(plp->cm[28], nullptr);
    EXPECT_EQ(plp->cm[29], nullptr);
    plp->spareVec = static_cast<float*>(std::malloc(4));
    ClearPLPInfo(plp);
    EXPECT_TRUE(plp->vecA == nullptr && plp->cm == nullptr && plp->spareVec == nullptr);
    ClearPLPInfo(plp);
    std::free(plp);

    Bank many(200, 8000, 100, 40.0F, 3800.0F);  // more rows than the table holds
    PLPInfo* large = InitPLP(many.info, 80);
    EXPECT_NEAR(large->cm[59][3], 2.0 * std::cos(kPi * 2 * 59 / 101), 1e-12);
    ClearPLPInfo(large);
    std::free(large);
}

TEST(SignalProcessDeath, PreconditionsEndTheProcessWithTheirText) {
    float v[8] = {3.0F};
    FBankInfo bank{};
    const auto dies = [](const std::function<void()>& call, const std::string& text) {
        std::string pattern;
        for (const char c : text) {
            pattern += std::string("()[]*+").find(c) == std::string::npos ? "" : "\\";
            pattern += c;
        }
        EXPECT_DEATH(call(), pattern);
    };
    dies([&] { zero_mean_frame(v, 4); }, "vec != NULL && (int) vec[0] == iLen");
    dies([&] { zero_mean_frame(nullptr, 0); }, "vec != NULL && (int) vec[0] == iLen");
    dies([&] { pre_emphasise(v, 0.0F, 4); }, "k > 0.0 && k < 1.0");
    dies([&] { pre_emphasise(nullptr, 1.0F, 4); }, "k > 0.0 && k < 1.0");
    dies([&] { pre_emphasise(v, 0.97F, 4); }, "s != NULL && (int) s[0] == frameSize");
    dies([&] { ham(v, 4); }, "s != NULL && (int) s[0] == frameSize");
    dies([&] { GenHamWindow(v, 4); }, "hamWin != NULL && (int)(hamWin[0]) == frameSize");
    dies([&] { wave_2_fbank(v, nullptr, &bank); }, "s && fbank && info");
    dies([&] { wave_2_fbank(v, v, &bank); }, "info->frameSize == (int)(*s)");
    bank.frameSize = 3;
    dies([&] { wave_2_fbank(v, v, &bank); }, "info->numChans == (int)(*fbank)");
    dies([&] { GenCepLifterWindow(v, 4, 22); }, "cepWin != NULL && (int)(*cepWin) == cepSize");
    dies([&] { WeightCepstrum(v, 3, 22); }, "cepFrame != NULL && cepSize + 1 == (int)(*cepFrame)");
    dies([&] { InitPLP(nullptr, 12); }, "fbinfo");
    dies([&] { ClearPLPInfo(nullptr); }, "info");
    dies([&] { init_fbank(INT_MAX, 80, 8000, 26, 40, 3800, 1, 1, 1, 1, 0, 0); }, "fftN");
    dies([&] { init_fbank(200, 80, 8000, 40000, 40, 3800, 1, 1, 0, 1, 0, 0); }, "numChans");
}

}  // namespace
