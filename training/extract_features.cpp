// Log mel features of a raw recording, as the library computes them.
//
//     extract_features IN OUT
//
// IN: 16-bit mono PCM at 8 kHz, without header. OUT: 26 little-endian floats per frame, a frame of
// 200 samples every 80.
#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

#include "dnnvad/feat/feature_translate.h"

namespace {

constexpr int kFrame = 200, kShift = 80, kFeatures = 26;

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s IN OUT\n", argv[0]);
        return 2;
    }
    File in(std::fopen(argv[1], "rb"));
    File out(std::fopen(argv[2], "wb"));
    if (!in || !out) {
        std::perror("extract_features");
        return 1;
    }
    tz_dnnvad::PCM2FeatureTranslator head(kFrame, kFeatures, 40, 3800, kFeatures, 128, true);
    std::vector<std::int16_t> window(kFrame), fresh(kShift);
    std::vector<float> frame(kFrame);
    std::size_t got = std::fread(window.data(), sizeof window[0], kFrame, in.get());
    int number = 0;
    while (got != 0) {
        if (number == 0 && got < kFrame)
            break;
        frame.assign(window.begin(), window.end());
        head.translate(frame.data(), kFrame, number++);
        if (std::fwrite(head.dstFeature, sizeof(float), kFeatures, out.get()) != kFeatures) {
            std::perror("extract_features");
            return 1;
        }
        got = std::fread(fresh.data(), sizeof fresh[0], kShift, in.get());
        if (got < kShift)
            break;
        window.erase(window.begin(), window.begin() + kShift);
        window.insert(window.end(), fresh.begin(), fresh.end());
    }
    return 0;
}
