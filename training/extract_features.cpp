// Log mel features of a raw recording, as the library computes them.
//
//     extract_features 8000|16000 LOW HIGH IN OUT
//
// LOW, HIGH: edges of the filter bank in Hz. IN: 16-bit mono PCM at that rate, without header. OUT:
// 26 (8 kHz) or 40 (16 kHz) little-endian floats per frame of 25 ms, every 10 ms.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "dnnvad/feat/feature_translate.h"

namespace {

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fprintf(stderr, "usage: %s 8000|16000 LOW HIGH IN OUT\n", argv[0]);
        return 2;
    }
    const bool narrow = std::atoi(argv[1]) == 8000;
    const int length = narrow ? 200 : 400, shift = length * 2 / 5, channels = narrow ? 26 : 40;
    File in(std::fopen(argv[4], "rb"));
    File out(std::fopen(argv[5], "wb"));
    if (!in || !out) {
        std::perror("extract_features");
        return 1;
    }
    tz_dnnvad::PCM2FeatureTranslator head(length, channels, std::atoi(argv[2]), std::atoi(argv[3]),
                                          channels, narrow ? 128 : 256, narrow);
    if (head.getState() != 2) {
        return 1;
    }
    std::vector<std::int16_t> window(static_cast<std::size_t>(length));
    std::vector<std::int16_t> fresh(static_cast<std::size_t>(shift));
    std::vector<float> frame(window.size());
    const auto features = static_cast<std::size_t>(channels);
    std::size_t got = std::fread(window.data(), sizeof window[0], window.size(), in.get());
    for (int number = 0; got >= (number == 0 ? window.size() : fresh.size()); ++number) {
        if (number != 0) {
            window.erase(window.begin(), window.begin() + shift);
            window.insert(window.end(), fresh.begin(), fresh.end());
        }
        frame.assign(window.begin(), window.end());
        head.translate(frame.data(), length, number);
        if (std::fwrite(head.dstFeature, sizeof(float), features, out.get()) != features) {
            std::perror("extract_features");
            return 1;
        }
        got = std::fread(fresh.data(), sizeof fresh[0], fresh.size(), in.get());
    }
    return 0;
}
