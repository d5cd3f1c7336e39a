#include "dnnvad/feat/feature_translate.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <string>
#include <vector>

#include "plain_dsp.h"
#include "test_support.h"

namespace {

using namespace tz_dnnvad;
using Floats = std::vector<float>;
using test::printed;

const std::string kPrefix = "ERROR:[dnnvad/feat/feature_translate.cpp:]";

// A tone in noise around an offset, rounded to 16-bit values.
Floats recording(std::size_t samples, double cycles_per_sample, unsigned seed) {
    Floats values = plain::noise(samples, seed, 600.0);
    for (std::size_t i = 0; i < samples; ++i) {
        const double phase = 2.0 * plain::kPi * cycles_per_sample * static_cast<double>(i);
        values[i] = std::round(values[i] + static_cast<float>(200.0 + 6000.0 * std::sin(phase)));
    }
    return values;
}

// The bins of a frame after the head's own steps.
std::vector<plain::Complex> plain_spectrum(const Floats& pcm, bool narrow) {
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
    for (std::size_t i = 0; i < s.size(); ++i) {
        const double turn = static_cast<double>(i) / static_cast<double>(s.size() - 1);
        s[i] *= 0.54 - 0.46 * std::cos(2.0 * plain::kPi * turn);
    }
    return plain::dft(s, narrow ? 256 : 512, -1.0);
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
        EXPECT_EQ(printed([&] { EXPECT_EQ(head.translate(pcm.data(), samples, 0), 0); }),
                  narrow ? "" : "info->fftN 512\n");

        const std::vector<plain::Complex> spectrum = plain_spectrum(pcm, narrow);
        const std::vector<double> energies =
            plain::triangles(spectrum, narrow ? 8000.0 : 16000.0, channels, 40.0, high, true);
        for (std::size_t i = 0; i < energies.size(); ++i) {
            EXPECT_NEAR(head.dstFeature[i], std::log(energies[i]), 2e-4) << narrow << " " << i;
        }
        for (std::size_t j = 0; j < spectrum.size() / 2; ++j) {
            EXPECT_NEAR(head.fftFeature[j], 10.0 * std::log10(std::abs(spectrum[j])), 2e-3) << j;
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

TEST(Head, SilenceConstantsAndOddLengths) {
    PCM2FeatureTranslator narrow(200, 26, 40, 3800, 26, 128, true);
    PCM2FeatureTranslator wide(400, 40, 40, 7600, 40, 256, false);
    Floats pcm(400);
    narrow.translate(pcm.data(), 200, 0);
    wide.translate(pcm.data(), 400, 0);
    EXPECT_EQ(Floats(narrow.dstFeature, narrow.dstFeature + 26), Floats(26, -15.942385F));
    EXPECT_EQ(Floats(wide.dstFeature, wide.dstFeature + 40), Floats(40, -15.942385F));
    EXPECT_EQ(wide.fftFeature[255], -100.0F);
    // Only the narrow band removes the mean.
    std::fill(pcm.begin(), pcm.end(), 1000.0F);
    narrow.translate(pcm.data(), 200, 0);
    wide.translate(pcm.data(), 400, 0);
    EXPECT_EQ(narrow.dstFeature[0], -15.942385F);
    EXPECT_GT(wide.dstFeature[0], 0.0F);

    // Missing samples are zeros, superfluous ones do not count; layouts may take turns.
    PCM2FeatureTranslator shorter(120, 26, 40, 3800, 26, 128, true);
    PCM2FeatureTranslator longer(300, 26, 40, 3800, 26, 128, true);
    Floats voice = recording(400, 0.05, 2);
    std::fill(voice.begin() + 120, voice.begin() + 200, 0.0F);
    narrow.translate(voice.data(), 200, 0);
    for (PCM2FeatureTranslator* other : {&shorter, &longer}) {
        wide.translate(pcm.data(), 400, 0);
        other->translate(voice.data(), 7, 0);
        EXPECT_TRUE(std::equal(other->dstFeature, other->dstFeature + 26, narrow.dstFeature));
        EXPECT_TRUE(std::equal(other->fftFeature, other->fftFeature + 128, narrow.fftFeature));
    }
}

TEST(Head, OptionsOfBothLayouts) {
    for (const bool narrow : {true, false}) {
        FeOption* opt = init_fevad(-1, 3000, 12, narrow);
        const Floats fields(&opt->sampleRate, &opt->spareSetting3 + 1);
        EXPECT_EQ(fields, narrow ? (Floats{8000, 200, 80, -1, 3000, 12, 12, 22, 12})
                                 : (Floats{16000, 400, 160, -1, 3000, 12, 12, 22, 12}));
        EXPECT_EQ(opt->narrowBand, narrow);
        EXPECT_TRUE(opt->spareSetting4 == 3 && opt->spareSetting5 == 1 && opt->appendEnergy == 0);
        EXPECT_EQ(opt->fbinfo->sampleRate, opt->sampleRate);
        EXPECT_EQ(opt->fbinfo->frameShift, opt->frameShift);
        Floats pcm(400);
        Floats out(12);
        int length = 77;
        EXPECT_EQ(printed([&] { wav2cep_one_frame(pcm.data(), 400, out.data(), length, opt); }),
                  narrow ? "use pcm process\n" : "info->fftN 512\n");
        EXPECT_EQ(length, 77);
        kill_fevad(opt);
    }
}

TEST(Head, EnergyAndLogs) {
    FeOption* opt = init_fevad(40, 3800, 26, true);
    opt->appendEnergy = 1;
    opt->fbinfo->takeLogs = 0;
    Floats pcm = recording(200, 0.1, 3);
    Floats out(28, -1.0F);
    Floats with_spectrum(28, -1.0F);
    Floats spectrum(128);
    int length = 77;
    printed([&] {
        EXPECT_EQ(wav2cep_one_frame(pcm.data(), 200, out.data(), length, opt), 0);
        EXPECT_EQ(wav2cep_one_frame(pcm.data(), 200, with_spectrum.data(), length, opt,
                                    spectrum.data(), 128),
                  0);
    });
    EXPECT_EQ(opt->fbinfo->takeLogs, 1);
    EXPECT_EQ(out, with_spectrum);
    float sum = 200.0F * 200.0F;  // the header counts, the last sample does not
    for (std::size_t i = 0; i < 199; ++i) {
        sum = std::fma(pcm[i], pcm[i], sum);
    }
    EXPECT_EQ(out[26], sum / 200.0F);
    EXPECT_EQ(out[27], -1.0F);
    clear_fbank(opt->fbinfo);
    opt->fbinfo = nullptr;
    EXPECT_DEATH(wav2cep_one_frame(pcm.data(), 200, out.data(), length, opt), "`fbinfo'");
    kill_fevad(opt);
}

TEST(Head, FailedAllocations) {
    Floats pcm(200);
    EXPECT_EQ(printed([&] {
                  PCM2FeatureTranslator head(200, -1, 40, 3800, 26, 128, true);
                  EXPECT_EQ(head.getState(), 1);
                  EXPECT_EQ(head.translate(pcm.data(), 200, 0), -1);
              }),
              kPrefix + "init pcm2featuretranslator malloc failure! dstDim:-1\n");
    // Without its spectrum the head still works.
    EXPECT_EQ(printed([&] {
                  PCM2FeatureTranslator head(200, 26, 40, 3800, 26, -4, true);
                  EXPECT_EQ(head.getState(), 2);
                  EXPECT_EQ(head.translate(pcm.data(), 200, 0), 0);
                  EXPECT_EQ(head.dstFeature[25], -15.942385F);
              }),
              kPrefix + "init pcm2featuretranslator malloc fft feature fftDim:-4\n");
    PCM2FeatureTranslator narrower(200, 3, 40, 3800, 26, 128, true);  // more channels than room
    EXPECT_EQ(narrower.translate(pcm.data(), 200, 0), 0);
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
            EXPECT_EQ(concat.contextFramesCopy, 0);
            concat.reset();
        });
    };
    EXPECT_EQ(message(26, 100),
              kPrefix + "ConcatFeatureTranslator init dstDim:100 srcDim:26 not exact division\n\n");
    EXPECT_EQ(message(0, 4),
              kPrefix + "ConcatFeatureTranslator init dstDim:4 srcDim:0 not exact division\n\n");
    EXPECT_EQ(message(-1, INT_MIN),
              kPrefix +
                  "ConcatFeatureTranslator init srcDim:-2147483648 feature memory new "
                  "failure\n\n");
    for (const int src : {0, 3, -2}) {
        ConcatFeatureTranslator empty(src, src < 0 ? 4 : 0);
        Floats block(8);
        EXPECT_EQ(empty.translate(block.data(), src, 0), 0);
        EXPECT_EQ(empty.translate(block.data(), src, 0), 0);
    }
}

TEST(Chain, CarriesFramesResetsAndStates) {
    PCM2FeatureTranslator head(200, 26, 40, 3800, 26, 128, true);
    Floats mean(26, 1.5F);
    Floats reverse(26, 0.25F);
    CMVNFeatureTranslator cmvn(26, 26, mean.data(), reverse.data());
    mean[0] = reverse[0] = 99.0F;  // copied
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
    EXPECT_EQ(cmvn.translate(first.data(), 25, 0), -1);
    head.reset();
    EXPECT_EQ(concat.framesSeen, 0);
    concat.state = 1;
    EXPECT_EQ(head.getState(), 1);
    EXPECT_EQ(head.translate(first.data(), 200, 0), -1);
    concat.state = 2;
    cmvn.state = 1;
    EXPECT_EQ(cmvn.translate(first.data(), 26, 0), -1);
    cmvn.state = 2;
    head.state = 1;
    EXPECT_EQ(head.getState(), 1);
}

TEST(Cmvn, Failures) {
    Floats vectors(200);
    const auto message = [&](int src, int dst) {
        return printed([&] {
            CMVNFeatureTranslator cmvn(src, dst, vectors.data(), vectors.data());
            PCM2FeatureTranslator head(200, 26, 40, 3800, 26, 128, true);
            head.next = &cmvn;
            EXPECT_EQ(head.getState(), 1);
            EXPECT_EQ(head.translate(vectors.data(), 200, 0), -1);
        });
    };
    EXPECT_EQ(message(26, 40),
              kPrefix + "CMVNFeatureTranslator init srcDim:26 dstDim:40 not equal!\n\n");
    EXPECT_EQ(message(-3, -3),
              kPrefix + "CMVNFeatureTranslator init srcDim:-3. memory new error!\n\n");
}

}  // namespace
