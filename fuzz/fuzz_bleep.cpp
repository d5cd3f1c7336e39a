// The loader of bleep templates, then a score. Run: see harness.h.
#include "dnnvad/bleep_detect.h"
#include "harness.h"

void fuzz::one_input(const std::uint8_t* data, std::size_t size) {
    static MemoryFile file;
    // The sizes of sessions, or small ones, of which many more run in a second.
    Reader reader(data, size);
    const int choice = reader.take<std::uint8_t>();
    const int bins = choice < 2 ? 128 << choice : 6 + choice / 8;
    const int rows = choice < 2 ? 15 : choice % 4, low = 5;
    const int frames = choice < 2 ? 60 : 1 + choice % 9;
    std::vector<char> pattern(static_cast<std::size_t>(rows * bins));
    std::vector<float> weights(static_cast<std::size_t>(bins - low + 1));
    tz_dnnvad::BleepDetector detector;
    if (detector.load_dector_model(file.hold(reader.rest(), reader.left()), rows, bins,
                                   pattern.data(), low, weights.data()) != 0) {
        return;
    }
    const auto cells = static_cast<std::size_t>(frames * bins + 1);
    std::vector<float> spectrogram(cells), embedding(static_cast<std::size_t>(bins - low));
    std::vector<char> binary(cells);
    for (std::size_t k = 0; k < cells; ++k) {
        spectrogram[k] =
            static_cast<float>(k * 2654435761U % 997) / static_cast<float>(10 + choice % 16);
    }
    const float score = detector.bleep_detect_score(
        frames, frames, bins, low, rows, -15.0F, spectrogram.data(), binary.data(), pattern.data(),
        weights.data(), embedding.data());
    if (score < 0 || score > 1) {
        fault("a probability outside 0 .. 1");
    }
}
