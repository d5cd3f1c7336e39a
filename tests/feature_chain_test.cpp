#include "dnnvad/feat/feature_translate.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <complex>
#include <cstdio>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace tz_dnnvad;
using Floats = std::vector<float>;

// What `call` prints, without the line numbers of its log prefixes.
std::string printed(const std::function<void()>& call) {
    testing::internal::CaptureStdout();
    call();
    std::fflush(stdout);
    std::string text = testing::internal::GetCapturedStdout();
    const std::size_t colon = text.find(".cpp:");
    if (colon != std::string::npos) {
        text.erase(colon + 5, text.find(']') - colon - 5);
    }
    return text;
}

const char* const kPrefix = "ERROR:[dnnvad/feat/feature_translate.cpp:]";

// A tone in noise, rounded to 16-bit values.
Floats recording(std::size_t samples, double cycles_per_sample, unsigned seed) {
    std::mt19937 generator(seed);
    std::normal_distribution<double> noise(200.0, 600.0);
    Floats values;
    for (std::size_t i = 0; i < samples; ++i) {
        const double phase = 6.283185307179586 * cycles_per_sample * static_cast<double>(i);
        values.push_back(
            static_cast<float>(std::round(6000.0 * std::sin(phase) + noise(generator))));
    }
    return values;
}

// The head's steps from their textbook definitions, in double precision: magnitudes of the bins.
std::vector<double> magnitudes(const Floats& pcm, bool narrow) {
    std::vector<double> s(pcm.begin(), pcm.end());
    if (narrow) {
        double mean = 0.0;
        for (const double value : s) {
            mean += value / static_cast<double>(s.size());
        }
        for (double& value : s) {
            value -= mean;
        }
        for (std::size_t i = s.size(); i-- > 0;) {
            s[i] -= 0.97 * (i > 0 ? s[i - 1] : s[0]);
        }
    }
    const double n = narrow ? 256.0 : 512.0;
    std::vector<double> result;
    for (double k = 0; k < n / 2; ++k) {
        std::complex<double> bin = 0.0;
        for (std::size_t i = 0; i < s.size(); ++i) {
            const double t = static_cast<double>(i);
            const double window =
                0.54 - 0.46 * std::cos(6.283185307179586 * t / static_cast<double>(s.size() - 1));
            bin += s[i] * window * std::polar(1.0, -6.283185307179586 * k * t / n);
        }
        result.push_back(std::abs(bin));
    }
    return result;
}

double mel(double hertz) { return 1127.0 * std::log(1.0 + hertz / 700.0); }

// Log energies of triangles on the mel scale over bins of 31.25 Hz.
std::vector<double> log_energies(const std::vector<double>& magnitude, int channels, double low,
                                 double high) {
    const double width = (mel(high) - mel(low)) / (channels + 1);
    std::vector<double> result;
    for (int c = 1; c <= channels; ++c) {
        double sum = 0.0;
        for (std::size_t j = 1; j < magnitude.size(); ++j) {
            const double place = (mel(31.25 * static_cast<double>(j)) - mel(low)) / width;
            sum += std::max(0.0, 1.0 - std::abs(place - c)) * magnitude[j] * magnitude[j];
        }
        result.push_back(std::log(sum));
    }
    return result;
}

TEST(Head, AgreesWithDefinitionInBothLayouts) {
    for (const bool narrow : {true, false}) {
        const int samples = narrow ? 200 : 400;
        const int channels = narrow ? 26 : 40;
        const int bins = narrow ? 128 : 256;
        const int high = narrow ? 3800 : 7600;
        PCM2FeatureTranslator head(samples, channels, 40, high, channels, bins, narrow);
        ASSERT_EQ(head.getState(), 2);
        Floats pcm = recording(static_cast<std::size_t>(samples), 0.0731, 1);
        const std::string lines =
            printed([&] { EXPECT_EQ(head.translate(pcm.data(), samples, 0), 0); });
        EXPECT_EQ(lines, narrow ? "" : "info->fftN 512\n");

        const std::vector<double> magnitude = magnitudes(pcm, narrow);
        const std::vector<double> expected = log_energies(magnitude, channels, 40.0, high);
        for (std::size_t i = 0; i < expected.size(); ++i) {
            EXPECT_NEAR(head.dstFeature[i], expected[i], 2e-4) << narrow << " channel " << i;
        }
        for (std::size_t j = 0; j < magnitude.size(); ++j) {
            EXPECT_NEAR(head.fftFeature[j], 10.0 * std::log10(magnitude[j]), 2e-3) << j;
        }

        Floats copy(static_cast<std::size_t>(bins));
        EXPECT_EQ(head.get_fft_dim(), bins);
        EXPECT_EQ(head.read_fft(copy.data(), bins - 1), -1);
        EXPECT_EQ(copy[5], 0.0F);
        EXPECT_EQ(head.read_fft(copy.data(), bins), bins);
        EXPECT_TRUE(std::equal(copy.begin(), copy.end(), head.get_fft_feature()));
        EXPECT_EQ(head.read(copy.data(), channels), -1);  // nothing to read from
    }
}

TEST(Head, SilenceConstantsAndShortFrames) {
    PCM2FeatureTranslator narrow(200, 26, 40, 3800, 26, 128, true);
    PCM2FeatureTranslator wide(400, 40, 40, 7600, 40, 256, false);
    Floats pcm(400);
    narrow.translate(pcm.data(), 200, 0);
    wide.translate(pcm.data(), 400, 0);
    for (const float* feature : {narrow.dstFeature, wide.dstFeature}) {
        EXPECT_TRUE(std::all_of(feature, feature + 26, [](float v) { return v == -15.942385F; }));
    }
    EXPECT_EQ(wide.fftFeature[255], -100.0F);
    // Only the narrow band removes the mean.
    std::fill(pcm.begin(), pcm.end(), 1000.0F);
    narrow.translate(pcm.data(), 200, 0);
    wide.translate(pcm.data(), 400, 0);
    EXPECT_EQ(narrow.dstFeature[0], -15.942385F);
    EXPECT_GT(wide.dstFeature[0], 0.0F);

    // Missing samples are zeros, superfluous ones are left alone; layouts may take turns.
    PCM2FeatureTranslator shorter(120, 26, 40, 3800, 26, 128, true);
    PCM2FeatureTranslator longer(300, 26, 40, 3800, 26, 128, true);
    Floats voice = recording(400, 0.05, 2);
    std::fill(voice.begin() + 120, voice.begin() + 200, 0.0F);
    narrow.translate(voice.data(), 200, 0);
    for (PCM2FeatureTranslator* other : {&shorter, &longer}) {
        wide.translate(voice.data(), 400, 0);
        other->translate(voice.data(), 7, 0);
        EXPECT_TRUE(std::equal(other->dstFeature, other->dstFeature + 26, narrow.dstFeature));
        EXPECT_TRUE(std::equal(other->fftFeature, other->fftFeature + 128, narrow.fftFeature));
    }
}

TEST(Head, Options) {
    for (const bool narrow : {true, false}) {
        FeOption* options = init_fevad(-1, 3000, 12, narrow);
        EXPECT_EQ(options->sampleRate, narrow ? 8000 : 16000);
        EXPECT_EQ(options->frameLength, narrow ? 200 : 400);
        EXPECT_EQ(options->frameShift, narrow ? 80 : 160);
        EXPECT_EQ(options->lowFreq, -1);
        EXPECT_EQ(options->highFreq, 3000);
        EXPECT_EQ(options->numChans, 12);
        EXPECT_EQ(options->narrowBand, narrow);
        EXPECT_EQ(options->spareSetting1, 12);
        EXPECT_EQ(options->spareSetting2, 22);
        EXPECT_EQ(options->spareSetting3, 12);
        EXPECT_EQ(options->spareSetting4, 3);
        EXPECT_EQ(options->spareSetting5, 1);
        EXPECT_EQ(options->appendEnergy, 0);
        EXPECT_EQ(options->fbinfo->sampleRate, options->sampleRate);
        EXPECT_EQ(options->fbinfo->frameShift, options->frameShift);
        kill_fevad(options);
    }
}

TEST(Head, FormWithoutSpectrumPrintsAndAppendsEnergy) {
    FeOption* options = init_fevad(40, 3800, 26, true);
    options->appendEnergy = 1;
    options->fbinfo->takeLogs = 0;
    Floats pcm = recording(200, 0.1, 3);
    Floats out(28, -1.0F);
    Floats with_spectrum(28, -1.0F);
    Floats spectrum(128);
    int length = 77;
    const std::string lines = printed([&] {
        EXPECT_EQ(wav2cep_one_frame(pcm.data(), 200, out.data(), length, options), 0);
        EXPECT_EQ(wav2cep_one_frame(pcm.data(), 200, with_spectrum.data(), length, options,
                                    spectrum.data(), 128),
                  0);
    });
    EXPECT_EQ(lines, "use pcm process\n");
    EXPECT_EQ(length, 77);
    EXPECT_EQ(options->fbinfo->takeLogs, 1);
    EXPECT_EQ(out, with_spectrum);
    double energy = 200.0 * 200.0;
    for (std::size_t i = 0; i < 199; ++i) {
        energy += static_cast<double>(pcm[i]) * pcm[i];
    }
    EXPECT_NEAR(out[26] / (energy / 200.0), 1.0, 1e-5);
    EXPECT_EQ(out[27], -1.0F);
    clear_fbank(options->fbinfo);
    options->fbinfo = nullptr;
    EXPECT_DEATH(wav2cep_one_frame(pcm.data(), 200, out.data(), length, options), "`fbinfo'");
    kill_fevad(options);
}

TEST(Concat, StacksTheLastFramesOldestFirst) {
    ConcatFeatureTranslator concat(2, 6);
    EXPECT_EQ(concat.contextFrames, 3);
    Floats out(6);
    const auto push = [&](float value) {
        Floats frame{value, value + 0.5F};
        EXPECT_EQ(concat.translate(frame.data(), 2, 0), 0);
        EXPECT_EQ(concat.read(out.data(), 6), 6);
        return out;
    };
    EXPECT_EQ(push(1), (Floats{1, 1.5, 1, 1.5, 1, 1.5}));
    EXPECT_EQ(push(2), (Floats{1, 1.5, 1, 1.5, 2, 2.5}));
    EXPECT_EQ(push(3), (Floats{1, 1.5, 2, 2.5, 3, 3.5}));
    EXPECT_EQ(push(4), (Floats{2, 2.5, 3, 3.5, 4, 4.5}));
    EXPECT_EQ(concat.framesSeen, 4);
    EXPECT_EQ(concat.translate(out.data(), 3, 0), -1);
    EXPECT_EQ(concat.read(out.data(), 5), -1);
    concat.reset();
    EXPECT_EQ(concat.framesSeen, 0);
    EXPECT_EQ(concat.feature[5], 0.0F);
    EXPECT_EQ(push(5), (Floats{5, 5.5, 5, 5.5, 5, 5.5}));
}

TEST(Concat, FailuresAndOddDimensions) {
    const auto message = [](int src, int dst) {
        return printed([&] {
            ConcatFeatureTranslator concat(src, dst);
            EXPECT_EQ(concat.getState(), 1);
            Floats block(128);
            EXPECT_EQ(concat.translate(block.data(), src, 0), -1);
            EXPECT_EQ(concat.read(block.data(), dst), -1);
            concat.reset();
        });
    };
    EXPECT_EQ(message(26, 100), std::string(kPrefix) +
                                    "ConcatFeatureTranslator init dstDim:100 "
                                    "srcDim:26 not exact division\n\n");
    EXPECT_NE(message(0, 4).find("not exact"), std::string::npos);
    EXPECT_EQ(message(-1, INT_MIN), std::string(kPrefix) +
                                        "ConcatFeatureTranslator init srcDim:-2147483648 feature "
                                        "memory new failure\n\n");
    for (const int src : {0, 3, -2}) {
        ConcatFeatureTranslator empty(src, src < 0 ? 4 : 0);
        Floats block(8);
        EXPECT_EQ(empty.translate(block.data(), src, 0), 0);
        EXPECT_EQ(empty.translate(block.data(), src, 0), 0);
    }
}

TEST(Cmvn, NormalisesOrRefuses) {
    Floats mean{1, 2, 3};
    Floats reverse{2, 1, 0.5F};
    CMVNFeatureTranslator cmvn(3, 3, mean.data(), reverse.data());
    mean[0] = reverse[0] = 99;  // copied
    Floats x{4, 4, 4};
    EXPECT_EQ(cmvn.translate(x.data(), 3, 0), 0);
    EXPECT_EQ(Floats(cmvn.dstFeature, cmvn.dstFeature + 3), (Floats{6, 2, 0.5F}));
    EXPECT_EQ(cmvn.translate(x.data(), 2, 0), -1);

    EXPECT_EQ(
        printed([&] {
            CMVNFeatureTranslator uneven(26, 40, mean.data(), reverse.data());
            PCM2FeatureTranslator head(200, 26, 40, 3800, 26, 128, true);
            head.next = &uneven;
            EXPECT_EQ(head.getState(), 1);
            EXPECT_EQ(head.translate(Floats(200).data(), 200, 0), -1);
        }),
        std::string(kPrefix) + "CMVNFeatureTranslator init srcDim:26 dstDim:40 not equal!\n\n");
    EXPECT_EQ(printed([&] {
                  CMVNFeatureTranslator negative(-3, -3, mean.data(), reverse.data());
                  EXPECT_EQ(negative.getState(), 1);
              }),
              std::string(kPrefix) + "CMVNFeatureTranslator init srcDim:-3. memory new error!\n\n");
}

TEST(Chain, CarriesFramesResetsAndStates) {
    PCM2FeatureTranslator head(200, 26, 40, 3800, 26, 128, true);
    Floats mean(26, 1.5F);
    Floats reverse(26, 0.25F);
    CMVNFeatureTranslator cmvn(26, 26, mean.data(), reverse.data());
    ConcatFeatureTranslator concat(26, 286);
    head.next = &cmvn;
    cmvn.next = &concat;
    EXPECT_EQ(head.getState(), 2);
    Floats first = recording(200, 0.02, 4);
    Floats second = recording(200, 0.09, 5);
    Floats out(286);
    EXPECT_EQ(head.translate(first.data(), 200, 0), 0);
    EXPECT_EQ(head.translate(second.data(), 200, 0), 0);
    EXPECT_EQ(head.read(out.data(), 286), 286);
    EXPECT_EQ(head.read(out.data(), 285), -1);
    for (std::size_t i = 0; i < 26; ++i) {
        EXPECT_EQ(out[260 + i], (head.dstFeature[i] - 1.5F) * 0.25F);
        EXPECT_NE(out[260 + i], out[234 + i]);
        EXPECT_EQ(out[i], out[234 + i]);
    }
    head.reset();
    EXPECT_EQ(concat.framesSeen, 0);
    concat.state = 1;
    EXPECT_EQ(head.getState(), 1);
    EXPECT_EQ(head.translate(first.data(), 200, 0), -1);
}

TEST(Head, FailedAllocations) {
    EXPECT_EQ(printed([] {
                  PCM2FeatureTranslator head(200, -1, 40, 3800, 26, 128, true);
                  EXPECT_EQ(head.getState(), 1);
                  EXPECT_EQ(head.translate(Floats(200).data(), 200, 0), -1);
              }),
              std::string(kPrefix) + "init pcm2featuretranslator malloc failure! dstDim:-1\n");
    // Without its spectrum the head still works.
    EXPECT_EQ(printed([] {
                  PCM2FeatureTranslator head(200, 26, 40, 3800, 26, -4, true);
                  EXPECT_EQ(head.getState(), 2);
                  EXPECT_EQ(head.translate(Floats(200).data(), 200, 0), 0);
                  EXPECT_EQ(head.dstFeature[25], -15.942385F);
              }),
              std::string(kPrefix) + "init pcm2featuretranslator malloc fft feature fftDim:-4\n");
}

}  // namespace
