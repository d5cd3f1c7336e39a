// Posterior smoothing and the two thresholds.
#include "dnnvad/windows_detect.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

namespace {

using tz_dnnvad::VadConfiger;
using tz_dnnvad::WindowsDetector;
using Floats = std::vector<float>;

enum { kSpeechToSpeech, kSpeechToSilence, kSilence, kSilenceToSpeech, kInvalid = 5 };

WindowsDetector make(float start = 0.2F, float end = 0.2F) {
    VadConfiger configer;
    configer._speech_threshold = start;
    configer._sil_threshold = end;
    return WindowsDetector(&configer);
}

// One frame whose six speech classes all have the posterior `speech`.
int feed(WindowsDetector& detector, float speech, int frame = 0) {
    const Floats post = {0.9F, 0.9F, 0.9F, speech, speech, speech, speech, speech, speech};
    return detector.smooth_detector_one_frame(post.data(), 9, frame);
}

TEST(Smoother, SettingsAndTheirDefaults) {
    VadConfiger configer;
    EXPECT_EQ(configer._flag, 1);
    EXPECT_EQ(configer._speech_threshold, 0.2F);
    EXPECT_EQ(configer._sil_threshold, 0.2F);
    EXPECT_EQ(configer._smooth_window, 20);
    configer._smooth_window = 7;
    EXPECT_TRUE(configer.load());
    EXPECT_EQ(configer._smooth_window, 20);
}

TEST(Smoother, MaximumOfTwentyAveragesOfThree) {
    WindowsDetector detector = make(1.1F, 1.1F);
    std::mt19937 generator(3);
    for (int stream = 0; stream < 2; ++stream) {
        Floats seen, averages(20, 0.0F);  // of class 5; multiples of 1/64, so that sums are exact
        for (int t = 0; t < 60; ++t) {
            Floats post(9, 0.5F);
            seen.push_back(post[5] = static_cast<float>(generator() % 65) / 64.0F);
            const int n = std::min(t + 1, 3);
            float sum = 0.0F;
            std::for_each(seen.end() - n, seen.end(), [&](float value) { sum += value; });
            averages.push_back(sum / static_cast<float>(n));
            EXPECT_EQ(detector.smooth_detector_one_frame(post.data(), 9, t), kSilence);
            ASSERT_EQ(detector._maxima[5], *std::max_element(averages.end() - 20, averages.end()));
        }
        const float maximum = detector._maxima[5];
        detector.reset();
        EXPECT_EQ(detector._maxima[5], maximum);  // computed anew before its next use
    }
    detector = make();
    EXPECT_EQ(feed(detector, 0.0F), kSilence);
    feed(detector, 0.0F);
    EXPECT_EQ(feed(detector, 1.0F), kSilenceToSpeech);  // average 1/3, in three frames
    for (int t = 1; t < 22; ++t) {
        ASSERT_EQ(feed(detector, 0.0F), kSpeechToSpeech) << t;
    }
    EXPECT_EQ(feed(detector, 0.0F), kSpeechToSilence);
    EXPECT_EQ(feed(detector, 0.0F), kSilence);
}

TEST(Smoother, ThresholdsAreInclusiveOnBothSides) {
    float sum = 1.0F;
    for (int k = 0; k < 6; ++k) {
        sum += std::log(0.25F);
    }
    const float score = std::exp(sum / 6.0F);
    WindowsDetector exact = make(score, score);
    EXPECT_EQ(feed(exact, 0.25F), kSilenceToSpeech);
    EXPECT_EQ(feed(exact, 0.25F), kSpeechToSilence);
    WindowsDetector apart = make(score, std::nextafter(score, 0.0F));
    EXPECT_EQ(feed(apart, 0.25F), kSilenceToSpeech);
    EXPECT_EQ(feed(apart, 0.25F), kSpeechToSpeech);
    WindowsDetector above = make(std::nextafter(score, 1.0F), 0.0F);
    EXPECT_EQ(feed(above, 0.25F), kSilence);
    // Negative frames have a threshold of their own, 0.3.
    WindowsDetector detector = make();
    EXPECT_EQ(feed(detector, 0.25F * 0.8465F, -1), kSilence);
    EXPECT_EQ(feed(detector, 0.25F * 0.8465F, 0), kSilenceToSpeech);
    detector.reset();
    EXPECT_EQ(feed(detector, 0.31F * 0.8465F, -1), kSilenceToSpeech);
}

TEST(Smoother, AClassThatIsNotSeenMeansSilence) {
    WindowsDetector detector = make(0.0001F, 0.0F);
    // Rounding leaves a little less than nothing in the running sums.
    for (float x = 0.01F; detector._sums[3] >= 0.0F && x < 0.05F; x += 0.0007F) {
        detector.reset();
        for (const float value : {x, 0.0311F, 0.0173F}) {
            feed(detector, value);
        }
        for (int t = 0; t < 30; ++t) {
            feed(detector, 0.0F);
        }
    }
    ASSERT_LT(detector._maxima[3], 0.0F);
    EXPECT_EQ(detector._state, 0);
    EXPECT_EQ(feed(detector, 0.0F), kSilence);
}

TEST(Smoother, OtherDimensionsChangeNothing) {
    WindowsDetector detector = make();
    feed(detector, 1.0F);
    const Floats sums = detector._sums, post(10, 0.0F);
    for (const int dim : {-1, 0, 2, 8, 10}) {
        EXPECT_EQ(detector.smooth_detector_one_frame(post.data(), dim, 0), kInvalid);
    }
    EXPECT_EQ(detector._sums, sums);
    EXPECT_EQ(feed(detector, 1.0F), kSpeechToSpeech);
}

}  // namespace
