#include "dnnvad/bleep_detect.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <filesystem>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "tests/temp_file.h"

namespace {

using tz_dnnvad::BleepDetector;

constexpr float kUntouched = -77.0F;

// Loads a model of 2 x 3 cells from a file of this text.
struct Loaded {
    std::vector<char> pattern = std::vector<char>(6, 9);
    std::vector<float> weights = std::vector<float>(4, kUntouched);
    int result;

    explicit Loaded(const std::string& text, int low = 2) {
        const test::TempFile file(text);
        result = BleepDetector().load_dector_model(file.path(), 2, 3, pattern.data(), low,
                                                   weights.data());
    }
};

TEST(BleepModel, ReadsTemplateThenWeights) {
    const Loaded loaded("1 0\n1 257 2\t-1  -0.5 1e2 7 not read");
    EXPECT_EQ(loaded.result, 0);
    EXPECT_EQ(loaded.pattern, (std::vector<char>{1, 0, 1, 1, 2, static_cast<char>(-1)}));
    EXPECT_EQ(loaded.weights, (std::vector<float>{-0.5F, 100.0F, kUntouched, kUntouched}));
    EXPECT_EQ(Loaded("1 0 1 0 1 1 5 6", 3).weights[0], 5.0F);
    EXPECT_EQ(Loaded("1 0 1 0 1 1 5 6", 4).weights[0], kUntouched);
}

TEST(BleepModel, BrokenFiles) {
    const auto open_files = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto open_before = open_files();
    EXPECT_EQ(Loaded("1 0 x 0 1 1 5 6").result, -1);
    EXPECT_EQ(Loaded("1 0 1 0 1 1 5").result, -1);
    EXPECT_EQ(Loaded("").result, -1);
    const Loaded short_template("0 1", 4);
    EXPECT_EQ(short_template.result, 0);
    EXPECT_EQ(short_template.pattern, (std::vector<char>{0, 1, 1, 1, 1, 1}));
    EXPECT_EQ(Loaded("", 4).pattern, std::vector<char>(6, static_cast<char>(-1)));
    const Loaded odd_weight("1 0 1 0 1 1 5 x 6", 1);
    EXPECT_EQ(odd_weight.result, 0);
    EXPECT_EQ(odd_weight.weights, (std::vector<float>{5.0F, kUntouched, kUntouched, kUntouched}));
    BleepDetector detector;
    EXPECT_EQ(detector.load_dector_model(nullptr, 2, 3, nullptr, 2, nullptr), -1);
    EXPECT_EQ(detector.load_dector_model("/nonexistent/model", 2, 3, nullptr, 2, nullptr), -1);
    EXPECT_EQ(open_files(), open_before);
}

// A spectrogram with its model and the results of scoring it. Buffers have their exact sizes.
struct Scene {
    int frames, bins, rows;
    int low = 2;
    float margin = -15.0F;
    std::vector<float> spectrogram, weights, embedding;
    std::vector<char> pattern, binary;

    Scene(int n, int width, int height) : frames(n), bins(width), rows(height) {
        spectrogram.resize(static_cast<std::size_t>(n * width + 1));
        binary.resize(spectrogram.size());
        pattern.resize(static_cast<std::size_t>(height * width));
        weights.resize(static_cast<std::size_t>(width - low + 1));
        embedding.resize(static_cast<std::size_t>(width - low));
    }
    float& at(int row, int column) {
        return spectrogram[static_cast<std::size_t>(row * bins + column)];
    }
    char& wanted(int row, int column) {
        return pattern[static_cast<std::size_t>(row * bins + column)];
    }
    float score() {
        return BleepDetector().bleep_detect_score(frames, 0, bins, low, rows, margin,
                                                  spectrogram.data(), binary.data(), pattern.data(),
                                                  weights.data(), embedding.data());
    }
};

TEST(BleepScore, MarginNarrowsWithTheRange) {
    Scene scene(4, 4, 3);
    const auto cells_on = [&](float floor, float margin) {
        scene.margin = margin;
        std::fill(scene.spectrogram.begin(), scene.spectrogram.end(), floor);
        scene.at(1, 0) = -15.0F;
        scene.at(1, 1) = -7.0F;
        scene.at(1, 2) = -8.0F;
        scene.spectrogram.back() = 0.0F;  // the cell after the rows counts
        scene.score();
        return std::count(scene.binary.begin(), scene.binary.end(), 1);
    };
    EXPECT_EQ(cells_on(-60.0F, -15.0F), 3);  // exactly the margin below is off
    EXPECT_EQ(cells_on(-60.0F, -15.5F), 4);
    EXPECT_EQ(cells_on(-90.0F, -7.5F), 2);
    EXPECT_EQ(cells_on(-30.0F, -15.0F), 2);
    EXPECT_EQ(cells_on(-60.0F, 1.0F), 0);
    std::fill(scene.spectrogram.begin(), scene.spectrogram.end(), 5.0F);  // flat: all off
    scene.weights[0] = 2.0F;
    EXPECT_FLOAT_EQ(scene.score(), 1.0F / (1.0F + std::exp(-2.0F)));
}

TEST(BleepScore, TiesAndTheLastOffset) {
    Scene scene(9, 8, 3);
    for (int column = 0; column < 8; ++column) {
        scene.wanted(2, column) = 1;
        scene.at(8, column) = 80.0F;  // would fit at offset 6, which is not tried
    }
    scene.at(3, 2) = scene.at(5, 4) = scene.at(7, 5) = 80.0F;  // one each at offsets 1, 3 and 5
    scene.score();
    EXPECT_EQ(scene.embedding, (std::vector<float>{0, 1, 0, 0, 0, 0}));
    scene.at(3, 2) = scene.at(5, 4) = scene.at(7, 5) = 0.0F;  // nothing fits: offset 0
    scene.score();
    EXPECT_EQ(scene.embedding, std::vector<float>(6, 0.0F));
}

TEST(BleepScore, CountsEveryCellOfAFullTemplate) {
    Scene scene(17, 256, 15);
    std::fill_n(scene.spectrogram.begin(), 256, -100.0F);  // all on but row 0
    std::fill(scene.pattern.begin(), scene.pattern.end(), 1);
    scene.score();
    EXPECT_EQ(scene.embedding, std::vector<float>(254, 15.0F));
}

TEST(BleepScore, RowsThatAreMissingCountAsEmpty) {
    Scene scene(2, 4, 3);
    scene.at(0, 1) = scene.at(1, 1) = scene.at(1, 2) = 80.0F;
    scene.score();
    EXPECT_EQ(scene.embedding, (std::vector<float>{2.0F, 1.0F}));
}

TEST(BleepScore, AddsFusedAndInOrder) {
    Scene scene(4, 7, 3);
    // Counts 1, 3, 1, 0, 0. Unfused, 3 * (1/3) - 1 would vanish; in another order the large weights
    // would swallow the small ones.
    scene.at(0, 1) = scene.at(0, 3) = 80.0F;
    scene.at(0, 2) = scene.at(1, 2) = scene.at(2, 2) = 80.0F;
    const float scale = 16777216.0F;
    scene.weights = {0.25F, -scale, scale * (1.0F / 3.0F), 0.25F, 0.0F, 0.0F};
    EXPECT_FLOAT_EQ(scene.score(), 1.0F / (1.0F + std::exp(-1.0F)));
}

// The same steps in plain loops, at the sizes of sessions and at one that is no multiple of 8.
TEST(BleepScore, AgreesWithPlainLoops) {
    std::mt19937 random(11);
    std::uniform_real_distribution<float> value(-60.0F, 40.0F);
    for (const int bins : {128, 256, 43}) {
        Scene scene(40, bins, 15);
        for (float& weight : scene.weights) {
            weight = value(random) / 500;
        }
        for (int trial = 0; trial < 20; ++trial) {
            std::generate(scene.spectrogram.begin(), scene.spectrogram.end(),
                          [&] { return value(random); });
            // Only the lowest bit of a template cell is compared.
            std::generate(scene.pattern.begin(), scene.pattern.end(),
                          [&] { return static_cast<char>(random() % 16 / 3); });
            const float got = scene.score();

            const float max = *std::max_element(scene.spectrogram.begin(), scene.spectrogram.end());
            const auto on = [&](int row, int column) { return scene.at(row, column) - max > -15; };
            int best = 0;
            int best_count = 0;
            for (int offset = 0; offset < 25; ++offset) {
                int count = 0;
                for (int j = 0; j < 15 * bins; ++j) {
                    const bool match = scene.wanted(j / bins, j % bins) % 2 == 1;
                    count += match && on(offset + j / bins, j % bins);
                }
                best = count > best_count ? offset : best;
                best_count = std::max(count, best_count);
            }
            double score = static_cast<double>(scene.weights[0]);
            for (std::size_t k = 0; k < scene.embedding.size(); ++k) {
                int ones = 0;
                for (int row = best; row < best + 15; ++row) {
                    ones += on(row, static_cast<int>(k) + 1);
                }
                ASSERT_EQ(scene.embedding[k], static_cast<float>(ones));
                score += ones * static_cast<double>(scene.weights[k + 1]);
            }
            ASSERT_NEAR(static_cast<double>(got), 1.0 / (1.0 + std::exp(-score)), 1e-4);
        }
    }
}

}  // namespace
