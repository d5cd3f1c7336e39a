// Scores a raw recording with a model file through the library's own parts.
//
//     score_pcm MODEL IN OUT [RESET]
//
// IN: 16-bit mono PCM at the model's rate, without header. OUT: per frame 10 little-endian floats,
// the 9 posteriors and the smoother's state code (0 and 3 speech, 1 and 2 silence). With RESET the
// chain and the smoother start afresh every RESET frames, as at the begin of a stream.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <vector>

#include "dnnvad/feat/feature_translate.h"
#include "dnnvad/vad_config.h"
#include "dnnvad/vad_nn.h"
#include "dnnvad/windows_detect.h"

using namespace tz_dnnvad;

int main(int argc, char** argv) {
    if (argc != 4 && argc != 5) {
        std::fprintf(stderr, "usage: %s MODEL IN OUT [RESET]\n", argv[0]);
        return 2;
    }
    const long reset = argc == 5 ? std::strtol(argv[4], nullptr, 10) : 0;
    VadConfiger settings;
    DNN network(&settings, argv[1]);
    if (network.getState() != 2)
        return 1;
    const bool narrow = network._feat_dim != 40;
    const int channels = network._feat_dim, length = narrow ? 200 : 400, shift = length * 2 / 5;
    const int inputs = network._layer_size[0];

    PCM2FeatureTranslator head(length, channels, network._low_freq, network._high_freq, channels,
                               narrow ? 128 : 256, narrow);
    CMVNFeatureTranslator cmvn(channels, channels, network._mean_vec, network._rev_var_vec);
    ConcatFeatureTranslator concat(channels, inputs);
    head.next = &cmvn;
    cmvn.next = &concat;
    if (head.getState() != 2)
        return 1;
    WindowsDetector smoother(&settings);

    std::ifstream in(argv[2], std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
    const auto* samples = reinterpret_cast<const std::int16_t*>(bytes.data());
    const long count = static_cast<long>(bytes.size() / 2);
    std::ofstream out(argv[3], std::ios::binary);

    alignas(16) static float stacked[4096];
    if (inputs > 4096)
        return 1;
    std::vector<float> frame(static_cast<std::size_t>(length));
    float result[10];
    for (long number = 0; number * shift + length <= count; ++number) {
        if (reset > 0 && number % reset == 0) {
            head.reset();
            smoother.reset();
        }
        frame.assign(samples + number * shift, samples + number * shift + length);
        head.translate(frame.data(), length, 0);
        head.read(stacked, inputs);
        network.forward(stacked, inputs, result);
        result[9] = static_cast<float>(smoother.smooth_detector_one_frame(result, 9, 0));
        out.write(reinterpret_cast<const char*>(result), sizeof result);
    }
    return out.good() ? 0 : 1;
}
