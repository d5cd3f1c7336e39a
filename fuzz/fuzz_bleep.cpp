// The loader of bleep templates, then a score. Run: see harness.h.
#include "dnnvad/bleep_detect.h"
#include "harness.h"

const bool fuzz::may_assert = false;

void fuzz::one_input(const std::uint8_t* data, std::size_t size) {
    static MemoryFile file;
    constexpr int kRows = 15, kLow = 5, kFrames = 60;
    Reader reader(data, size);
    const int bins = (reader.take<std::uint8_t>() & 1) != 0 ? 256 : 128;
    std::vector<char> pattern(static_cast<std::size_t>(kRows * bins));
    std::vector<float> weights(static_cast<std::size_t>(bins - kLow + 1));
    tz_dnnvad::BleepDetector detector;
    if (detector.load_dector_model(file.hold(reader.rest(), reader.left()), kRows, bins,
                                   pattern.data(), kLow, weights.data()) != 0) {
        return;
    }
    const auto cells = static_cast<std::size_t>(kFrames * bins + 1);
    std::vector<float> spectrogram(cells), embedding(static_cast<std::size_t>(bins - kLow));
    std::vector<char> binary(cells);
    for (std::size_t k = 0; k < cells; ++k) {
        spectrogram[k] = static_cast<float>(k * 2654435761U % 997) / 10.0F;
    }
    const float score = detector.bleep_detect_score(
        kFrames, kFrames, bins, kLow, kRows, -15.0F, spectrogram.data(), binary.data(),
        pattern.data(), weights.data(), embedding.data());
    if (score < 0 || score > 1) {
        fault("a probability outside 0 .. 1");
    }
}
