// Writes network model files, well-formed unless a test makes them otherwise.
#ifndef DNNVAD_TESTS_MODEL_WRITER_H
#define DNNVAD_TESTS_MODEL_WRITER_H

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace test {

struct Model {
    std::vector<std::int32_t> header = {26, 8000, 40, 3800, 0};  // channels, rate, edges, flag
    std::vector<float> means = std::vector<float>(26, 0.0F);
    std::vector<float> rev_vars = std::vector<float>(26, 1.0F);
    std::vector<std::int32_t> sizes;  // layers, input first
    std::vector<float> parameters;

    // Replace what follows from the members above.
    std::string header_rest = "\n", count_line, mean_line, rev_var_line;
    std::int32_t layer_number = -1;

    // What stands before the layer number, and everything.
    std::string text() const {
        const std::string dim = " " + std::to_string(header[0]) + "\n";
        std::string out = "three\nlines\nof text\n" + words(header) + header_rest;
        out += count_line.empty() ? std::to_string(parameters.size()) + "\n" : count_line;
        out += (mean_line.empty() ? "meanvec" + dim : mean_line) + lines(means);
        return out + (rev_var_line.empty() ? "revvarvec" + dim : rev_var_line) + lines(rev_vars);
    }
    std::string bytes() const {
        const auto count = static_cast<std::int32_t>(sizes.size());
        const std::vector<std::int32_t> number = {layer_number < 0 ? count : layer_number};
        return text() + words(number) + words(sizes) + words(parameters);
    }

private:
    template <typename Word>
    static std::string words(const std::vector<Word>& values) {
        return {reinterpret_cast<const char*>(values.data()), values.size() * sizeof(Word)};
    }
    static std::string lines(const std::vector<float>& values) {
        std::string out;
        for (const float value : values) {
            out += std::to_string(value) + "\n";
        }
        return out;
    }
};

inline Model random_model(std::vector<std::int32_t> sizes, unsigned seed = 1) {
    Model model;
    std::mt19937 generator(seed);
    std::uniform_real_distribution<float> weight(-1.0F, 1.0F);
    for (std::size_t k = 0; k + 1 < sizes.size(); ++k) {
        for (int i = 0; i < (sizes[k] + 1) * sizes[k + 1]; ++i) {
            model.parameters.push_back(weight(generator));
        }
    }
    model.sizes = std::move(sizes);
    return model;
}

// Judges a frame by its loudness: the speech classes win when the mean log energy of its channels is
// above 14 (thousands against tens in 16-bit samples). They share the probability, so thresholds
// have to be below 0.19. 40 channels make a 16 kHz model.
inline Model loudness_model(int channels) {
    Model model;
    const auto n = static_cast<std::size_t>(channels);
    if (channels == 40) {
        model.header = {40, 16000, 40, 7600, 0};
    }
    model.means.assign(n, 14.0F);
    model.rev_vars.assign(n, 1.0F / static_cast<float>(channels));
    model.sizes = {2 * channels, 9};  // the weights see the newer of two frames
    for (int k = 0; k < 9; ++k) {
        model.parameters.insert(model.parameters.end(), n, 0.01F * static_cast<float>(k));
        model.parameters.insert(model.parameters.end(), n, k < 3 ? -1.0F : 1.0F);
    }
    model.parameters.insert(model.parameters.end(), 9, 0.0F);
    return model;
}

}  // namespace test

#endif
