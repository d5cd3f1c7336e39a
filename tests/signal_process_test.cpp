#include "dnnvad/feat/signal_process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "dnnvad/aligned.h"
#include "dnnvad/arch/real_fft.h"
#include "dnnvad/feat/log_spectrum.h"
#include "plain_dsp.h"

namespace {

using namespace tz_dnnvad;
using plain::Complex;
using plain::kPi;
using plain::noise;
using Floats = std::vector<float>;

constexpr float kSentinel = 12345.0F;

// The values as a header vector, with a sentinel behind the last.
Floats with_header(const Floats& values) {
    Floats vector(1, static_cast<float>(values.size()));
    vector.insert(vector.end(), values.begin(), values.end());
    vector.push_back(kSentinel);
    return vector;
}

// (re, im) pairs as complex numbers.
std::vector<Complex> bins_of(const float* pairs, std::size_t count) {
    std::vector<Complex> bins;
    for (std::size_t k = 0; k < count; ++k) {
        bins.emplace_back(pairs[2 * k], pairs[2 * k + 1]);
    }
    return bins;
}

// Largest error over the bins found, relative to the root mean square of those bins.
double spectrum_error(const std::vector<Complex>& exact, const std::vector<Complex>& found) {
    double energy = 0.0;
    double worst = 0.0;
    for (std::size_t k = 0; k < found.size(); ++k) {
        energy += std::norm(exact[k]);
        worst = std::max(worst, std::abs(exact[k] - found[k]));
    }
    return worst / std::sqrt(energy / static_cast<double>(found.size()));
}

TEST(RealFft, AgreesWithDftAndKeepsItsInput) {
    for (std::size_t n = 8; n <= 1024; n *= 2) {
        const Floats samples = noise(n, static_cast<unsigned>(n));
        const AlignedFloats in = make_aligned_floats(n);
        const AlignedFloats out = make_aligned_floats(n + 3);
        std::copy(samples.begin(), samples.end(), in.get());
        out[n + 2] = kSentinel;
        RealFft* plan = real_fft_create(static_cast<int>(n));
        ASSERT_NE(plan, nullptr) << n;
        real_fft_forward(plan, in.get(), out.get());
        real_fft_destroy(plan);
        EXPECT_LT(spectrum_error(plain::dft(samples, n, -1.0), bins_of(out.get(), n / 2 + 1)), 2e-6)
            << n;
        EXPECT_TRUE(std::equal(samples.begin(), samples.end(), in.get())) << n;
        EXPECT_EQ(out[n + 2], kSentinel) << n;
    }
    for (const int n : {-8, 0, 2, 4, 7, 24, 200}) {
        EXPECT_EQ(real_fft_create(n), nullptr) << n;
    }
    real_fft_destroy(nullptr);
}

// Error of fft(sign * n) on noise.
double radix2_error(int n, int sign) {
    const std::size_t size = static_cast<std::size_t>(n);
    Floats x = noise(size, 1);
    Floats y = noise(size, 2);
    std::vector<Complex> values;
    for (std::size_t i = 0; i < size; ++i) {
        values.emplace_back(x[i], y[i]);
    }
    fft(sign * n, x.data(), y.data());
    std::vector<Complex> found;
    for (std::size_t i = 0; i < size; ++i) {
        found.push_back(Complex(x[i], y[i]) * (sign > 0 ? 1.0 : n));
    }
    return spectrum_error(plain::dft(values, size, -sign), found);
}

TEST(Radix2Fft, AgreesWithDftBothWays) {
    for (int n = 1; n <= 512; n *= 2) {
        EXPECT_LT(radix2_error(n, 1), 1e-5) << n;
        EXPECT_LT(radix2_error(n, -1), 1e-5) << n;
    }
    fft(0, nullptr, nullptr);
    EXPECT_LT(radix2_error(512, 1), 1e-5);  // tables made again
    for (const int n : {3, 6, -12, INT_MIN}) {
        float x = 1.0F;
        float y = 2.0F;
        fft(n, &x, &y);
        EXPECT_TRUE(x == 1.0F && y == 2.0F) << n;
    }
    std::vector<int> reversed(8);
    make_bitrev(8, reversed.data());
    EXPECT_EQ(reversed, (std::vector<int>{0, 4, 2, 6, 1, 5, 3, 7}));
    make_bitrev(6, reversed.data());  // comes to an end
    Floats sines(11, kSentinel);
    make_sintbl(8, sines.data());
    for (std::size_t i = 0; i < 10; ++i) {
        EXPECT_NEAR(sines[i], std::sin(kPi * static_cast<double>(i) / 4.0), 1e-6);
    }
    EXPECT_EQ(sines[1], 0.70710677F);
    EXPECT_EQ(sines[10], kSentinel);
}

TEST(Radix2Fft, ThreadsWithDifferentSizesDoNotMeet) {
    int failures[3] = {};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&failure = failures[t], n = 16 << t] {
            for (int round = 0; round < 2000; ++round) {
                Floats x(static_cast<std::size_t>(n), 1.0F);
                Floats y(x.size());
                fft(n, x.data(), y.data());
                failure += x[0] != static_cast<float>(n) || x[1] != 0.0F;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures[0] + failures[1] + failures[2], 0);
}

TEST(Realft, AgreesWithDftButForItsFirstPair) {
    for (std::size_t n = 2; n <= 512; n *= 2) {
        const Floats samples = noise(n, 3);
        Floats s = with_header(samples);
        realft(s.data());
        EXPECT_LT(spectrum_error(plain::dft(samples, n, 1.0), bins_of(&s[1], n / 2)), 2e-6) << n;
        EXPECT_EQ(s[2], 0.0F);
        EXPECT_EQ(s.back(), kSentinel);
    }
    for (const float header : {6.0F, 1.0F, -8.0F, 3e38F, std::nanf("")}) {
        Floats s{header, 1.0F, 2.0F, 3.0F, 4.0F, 5.0F, 6.0F};
        realft(s.data());
        EXPECT_TRUE(s[1] == 1.0F && s[2] == 2.0F && s[6] == 6.0F) << header;
    }
}

TEST(FrameSteps, BitExactForEveryTail) {
    for (std::size_t n : {0, 1, 2, 5, 6, 7, 37, 38, 39, 41, 42, 43, 200}) {
        const Floats values = noise(n, 4);
        float lane[4] = {};
        for (std::size_t i = 0; i < n; ++i) {
            lane[i % 4] = lane[i % 4] + values[i];
        }
        const float sum = lane[0] + lane[1] + lane[2] + lane[3];
        Floats centred = values;
        Floats emphasised = values;
        for (std::size_t i = 0; i < n; ++i) {
            centred[i] = values[i] - sum * (1.0F / static_cast<float>(n));
            emphasised[i] = i == 0 ? (1.0F - 0.97F) * values[0] : values[i] - 0.97F * values[i - 1];
        }
        Floats vec = with_header(values);
        zero_mean_frame(vec.data(), static_cast<int>(n));
        EXPECT_EQ(vec, with_header(centred)) << n;
        vec = with_header(values);
        pre_emphasise(vec.data(), 0.97F, static_cast<int>(n));
        EXPECT_EQ(vec, with_header(emphasised)) << n;
    }
}

TEST(FrameSteps, HammingWindow) {
    for (const std::size_t n : {200, 400, 37, 200}) {
        const int size = static_cast<int>(n);
        Floats window = with_header(Floats(n));
        GenHamWindow(window.data(), size);
        const Floats values = noise(n, 5);
        Floats s = with_header(values);
        ham(s.data(), size);
        for (std::size_t i = 0; i < n; ++i) {
            const double turn = static_cast<double>(i) / static_cast<double>(n - 1);
            EXPECT_NEAR(window[i + 1], 0.54 - 0.46 * std::cos(2.0 * kPi * turn), 1e-6);
            EXPECT_EQ(s[i + 1], values[i] * window[i + 1]);
        }
        EXPECT_EQ(s.back(), kSentinel);
    }
}

struct Bank {
    explicit Bank(FBankInfo* fb) : info(fb) {}
    Bank(int frame, int rate, int channels, float low, float high, Boolean use_power = 1)
        : Bank(init_fbank(frame, 80, rate, channels, low, high, use_power, 0, 0, 1, 0, 0)) {}
    ~Bank() { clear_fbank(info); }
    Bank(const Bank&) = delete;
    Bank& operator=(const Bank&) = delete;

    // Channel values of a frame, as a header vector with a sentinel.
    Floats run(const Floats& frame, Floats* spectrum = nullptr) {
        Floats s = with_header(frame);
        Floats fbank = with_header(Floats(static_cast<std::size_t>(std::max(info->numChans, 0))));
        s[0] = static_cast<float>(info->frameSize);
        fbank[0] = static_cast<float>(info->numChans);
        if (spectrum == nullptr) {
            wave_2_fbank(s.data(), fbank.data(), info);
        } else {
            wave_2_fbank(s.data(), fbank.data(), info, spectrum->data(),
                         static_cast<int>(spectrum->size()));
        }
        return fbank;
    }

    FBankInfo* info;
};

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
        const std::vector<double> expected = plain::triangles(
            plain::dft(frame, static_cast<std::size_t>(bank.info->fftN), -1.0), c.rate, c.channels,
            static_cast<double>(c.low), static_cast<double>(c.high), c.power != 0);
        for (std::size_t i = 0; i < expected.size(); ++i) {
            EXPECT_NEAR(found[i + 1] / expected[i], 1.0, 3e-4) << c.rate << " channel " << i + 1;
        }
        EXPECT_EQ(found.back(), kSentinel);
    }
}

TEST(FilterBank, BandEdges) {
    Bank bank(200, 8000, 26, 40.0F, 3800.0F);
    const FBankInfo& fb = *bank.info;
    EXPECT_EQ(fb.fftN, 256);
    EXPECT_EQ(fb.fres, static_cast<float>(8000.0 / (256.0 * 700.0)));
    EXPECT_EQ(fb.klo, 3);
    EXPECT_EQ(fb.khi, 122);
    EXPECT_EQ(fb.cf[0], 27.0F);
    EXPECT_NEAR(fb.cf[27], plain::mel(3800.0), 1e-3);
    EXPECT_EQ(fb.loChan[0], 128);
    EXPECT_EQ(fb.loWt[0], 128.0F);
    const std::int16_t edges[] = {fb.loChan[2], fb.loChan[3], fb.loChan[122], fb.loChan[123]};
    EXPECT_TRUE(edges[0] == -1 && edges[1] == 0 && edges[2] == 26 && edges[3] == -1);
    EXPECT_EQ(fb.x[0], 256.0F);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(fb.x + 1) % 16, 0U);

    Bank open(400, 16000, 40, -1.0F, -1.0F);
    EXPECT_EQ(open.info->klo, 2);
    EXPECT_EQ(open.info->khi, 256);
    EXPECT_NEAR(open.info->cf[41], plain::mel(8000.0), 1e-2);
    Bank doubled(init_fbank(200, 80, 8000, 26, 40.0F, 3800.0F, 1, 1, 1, 1.0F, 0.0F, 0.0F));
    EXPECT_EQ(doubled.info->fftN, 512);
    EXPECT_EQ(doubled.run(noise(200, 8)), doubled.run(noise(200, 8)));  // frames leave no trace
}

TEST(FilterBank, SpectrumIsBitExactAndLogsAreFloored) {
    Bank bank(200, 8000, 26, 40.0F, 3800.0F);
    Floats spectrum(130, kSentinel);
    const Floats sums = bank.run(noise(200, 8), &spectrum);
    for (std::size_t j = 0; j < 128; ++j) {
        const float re = bank.info->x[2 * j + 1];
        const float im = bank.info->x[2 * j + 2];
        const double magnitude = static_cast<double>(sqrtf(re * re + im * im));
        ASSERT_EQ(spectrum[j], static_cast<float>(10.0 * log10(magnitude + 1e-10))) << j;
    }
    EXPECT_EQ(spectrum[128], -100.0F);  // beyond the spectrum
    bank.info->takeLogs = 1;
    const Floats logs = bank.run(noise(200, 8));
    for (std::size_t i = 1; i <= 26; ++i) {
        EXPECT_EQ(logs[i], logf(sums[i]));
    }
    EXPECT_EQ(bank.run(Floats(200), &spectrum), with_header(Floats(26, -15.942385F)));
    EXPECT_EQ(spectrum, Floats(130, -100.0F));
}

TEST(FilterBank, Warping) {
    // Between the cuts; the fixed ends of the band; both joins.
    EXPECT_FLOAT_EQ(WarpFreq(300, 3000, 1000, 0, 4000, 1.25F), 800.0F);
    EXPECT_FLOAT_EQ(WarpFreq(300, 3000, 4000, 0, 4000, 1.25F), 4000.0F);
    EXPECT_FLOAT_EQ(WarpFreq(300, 3000, 100, 100, 4000, 1.25F), 100.0F);
    const float upper = 3000.0F * 2.0F / 1.8F;
    const float lower = 300.0F * 2.0F / 1.8F;
    EXPECT_NEAR(WarpFreq(300, 3000, upper + 0.01F, 0, 4000, 1.25F), 0.8F * upper, 0.1);
    EXPECT_NEAR(WarpFreq(300, 3000, lower - 0.01F, 100, 4000, 1.25F), 0.8F * lower, 0.1);
    for (const float same : {50.0F, 1234.5F, 4100.0F}) {  // cuts at the ends of the band too
        EXPECT_EQ(WarpFreq(100, 4000, same, 100, 4000, 1.0F), same);
    }
    // A cut beyond the band bends every centre downwards, the upper edge too: the bins above it
    // feed no channel.
    Bank bank(init_fbank(200, 80, 8000, 10, 100.0F, 3900.0F, 1, 0, 0, 1.25F, 4000.0F, 8000.0F));
    EXPECT_LT(bank.info->cf[11], plain::mel(3900.0) - 10.0);
    EXPECT_EQ(bank.info->loChan[bank.info->khi], 11);
    const Floats found = bank.run(noise(200, 9));
    EXPECT_EQ(found.back(), kSentinel);
    EXPECT_GT(found[10], 0.0F);
}

TEST(FilterBank, OddDesignsStayInBounds) {
    for (const int frame : {-1, 0, 1, 2, 3, 4, 5, 8}) {
        Bank bank(frame, 8000, 3, 0.0F, -1.0F);
        const Floats values = noise(static_cast<std::size_t>(std::max(frame, 0)), 10);
        EXPECT_EQ(bank.run(values).back(), kSentinel);
        const std::size_t n = static_cast<std::size_t>(bank.info->fftN);
        const std::vector<Complex> exact = plain::dft(values, n, -1.0);
        const std::vector<Complex> found = bins_of(bank.info->x + 1, n / 2);
        for (std::size_t j = 0; j < found.size(); ++j) {
            EXPECT_LT(std::abs(found[j] - exact[j]), 0.05) << frame;
        }
    }
    const float nan = std::nanf("");
    for (const float low : {-1.0F, 40.0F, 2e9F, nan}) {
        for (const float high : {-1.0F, 0.0F, 39.0F, 2e9F, nan}) {
            for (const int rate : {INT_MIN, -8000, 0, 1, 8000, INT_MAX}) {
                EXPECT_EQ(Bank(200, rate, 26, low, high).run(noise(200, 11)).back(), kSentinel);
            }
        }
    }
    EXPECT_EQ(Bank(200, 8000, 0, 40, 3800).run(noise(200, 12)), (Floats{0.0F, kSentinel}));
    EXPECT_EQ(Bank(200, 8000, -5, 40, 3800).run(noise(200, 12)), (Floats{-5.0F, kSentinel}));
}

TEST(LogSpectrum, EqualsTheLibraryFunction) {
    Floats power = {0.0F,   0.99999994F, 1e-45F, 1.17549435e-38F,
                    1e-20F, 1.0000001F,  3e38F,  std::numeric_limits<float>::infinity()};
    std::mt19937 generator(14);
    std::uniform_real_distribution<float> mantissa(1, 2);
    for (int i = 0; i < 100000; ++i) {
        // Even over the exponents; around 1, where results are near 0; densely from 2^10 on.
        power.push_back(std::ldexp(mantissa(generator), i % 140 - 70));
        power.push_back(1.0F + 1e-4F * (mantissa(generator) - 1.5F));
    }
    for (int i = 0; i < 1 << 20; ++i) {
        const float magnitude = 1024.0F + static_cast<float>(i) / 1024.0F;
        power.push_back(magnitude * magnitude);
    }
    const int count = static_cast<int>(power.size());
    Floats found(power.size());
    write_log_spectrum(power.data(), count, found.data(), count);
    for (std::size_t i = 0; i < power.size(); ++i) {
        const double magnitude = static_cast<double>(sqrtf(power[i]));
        ASSERT_EQ(found[i], static_cast<float>(10.0 * log10(magnitude + 1e-10))) << power[i];
    }
}

TEST(Cepstral, RegressionOfSequences) {
    const int dim = 30;
    for (const int frames : {1, 2, 3, 4, 5, 9}) {
        Floats data = noise(static_cast<std::size_t>(frames * dim), 15, 1.0);
        const Floats before = data;
        add_regress(data.data(), frames, dim);
        const auto at = [&](int t, int i) {
            const int frame = std::clamp(t, 0, frames - 1);
            return static_cast<double>(before[static_cast<std::size_t>(frame * dim + i)]);
        };
        for (int t = 0; t < frames; ++t) {
            for (int i = 0; i < dim; ++i) {
                const int x = i - 13;
                const double expected =
                    x < 0 || x > 12
                        ? at(t, i)
                        : (at(t + 1, x) - at(t - 1, x) + 2.0 * (at(t + 2, x) - at(t - 2, x))) /
                              10.0;
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
    Floats frame = with_header(Floats(13, 2.0F));
    WeightCepstrum(frame.data(), 12, 22);
    for (std::size_t i = 1; i <= 12; ++i) {
        const double phase = kPi * static_cast<double>(i) / 22.0;
        EXPECT_NEAR(window[i], 1.0 + 11.0 * std::sin(phase), 1e-5);
        EXPECT_EQ(frame[i], 2.0F * window[i]);
    }
    EXPECT_EQ(frame[13], 2.0F);
}

TEST(Cepstral, PlpRecord) {
    Bank bank(200, 8000, 26, 40.0F, 3800.0F);
    PLPInfo* plp = InitPLP(bank.info, 12);
    EXPECT_TRUE(plp->vecA[0] == 13.0F && plp->vecB[0] == 13.0F && plp->spareVec == nullptr);
    EXPECT_EQ(plp->compressFact, 0.33333334F);
    EXPECT_EQ(plp->eql[0], 26.0F);
    for (int i = 1; i <= 26; ++i) {
        const double hertz = 700.0 * (std::exp(static_cast<double>(bank.info->cf[i]) / 1127.0) - 1);
        const double f2 = hertz * hertz;
        const double ratio = f2 / (f2 + 1.6e5);
        EXPECT_NEAR(plp->eql[i] / (ratio * ratio * (f2 + 1.44e6) / (f2 + 9.61e6)), 1.0, 2e-5);
    }
    for (int k = 0; k <= 12; ++k) {
        EXPECT_EQ(plp->cm[k][1], 1.0);
        EXPECT_NEAR(plp->cm[k][6], 2.0 * std::cos(kPi * 5 * k / 27), 1e-12);
        EXPECT_NEAR(plp->cm[k][28], std::cos(kPi * k), 1e-12);
    }
    EXPECT_TRUE(plp->cm[28] != nullptr && plp->cm[29] == nullptr);
    plp->spareVec = static_cast<float*>(std::malloc(4));
    ClearPLPInfo(plp);
    EXPECT_TRUE(plp->vecA == nullptr && plp->cm == nullptr && plp->spareVec == nullptr);
    ClearPLPInfo(plp);
    std::free(plp);

    Bank many(200, 8000, 100, 40.0F, 3800.0F);  // more rows than the table holds
    plp = InitPLP(many.info, 80);
    EXPECT_NEAR(plp->cm[59][3], 2.0 * std::cos(kPi * 2 * 59 / 101), 1e-12);
    ClearPLPInfo(plp);
    std::free(plp);
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
    dies([&] { zero_mean_frame(v, 4); }, "`vec != NULL && (int) vec[0] == iLen'");
    dies([&] { zero_mean_frame(nullptr, 0); }, "`vec != NULL && (int) vec[0] == iLen'");
    dies([&] { pre_emphasise(v, 0.0F, 4); }, "`k > 0.0 && k < 1.0'");
    dies([&] { pre_emphasise(nullptr, 1.0F, 4); }, "`k > 0.0 && k < 1.0'");
    dies([&] { pre_emphasise(v, 0.97F, 4); }, "`s != NULL && (int) s[0] == frameSize'");
    dies([&] { ham(v, 4); }, "`s != NULL && (int) s[0] == frameSize'");
    dies([&] { GenHamWindow(v, 4); }, "`hamWin != NULL && (int)(hamWin[0]) == frameSize'");
    dies([&] { wave_2_fbank(v, nullptr, &bank); }, "`s && fbank && info'");
    dies([&] { wave_2_fbank(v, v, &bank); }, "`info->frameSize == (int)(*s)'");
    bank.frameSize = 3;
    dies([&] { wave_2_fbank(v, v, &bank); }, "`info->numChans == (int)(*fbank)'");
    dies([&] { GenCepLifterWindow(v, 4, 22); }, "`cepWin != NULL && (int)(*cepWin) == cepSize'");
    dies([&] { WeightCepstrum(v, 3, 22); },
         "`cepFrame != NULL && cepSize + 1 == (int)(*cepFrame)'");
    dies([&] { InitPLP(nullptr, 12); }, "`fbinfo'");
    dies([&] { ClearPLPInfo(nullptr); }, "`info'");
    dies([&] { init_fbank(INT_MAX, 80, 8000, 26, 40, 3800, 1, 1, 1, 1, 0, 0); }, "fftN");
    dies([&] { init_fbank(200, 80, 8000, 40000, 40, 3800, 1, 1, 0, 1, 0, 0); }, "numChans");
}

}  // namespace
