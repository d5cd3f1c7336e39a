#include "audio_file.h"

#include <sndfile.h>
#include <soxr.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <stdexcept>

namespace {

constexpr float kFullScale = 32768.0F;

// All frames of the file, channels averaged, full scale = 1.
std::vector<float> read_mono(SNDFILE* file, int channels) {
    constexpr sf_count_t kBlockFrames = 4096;
    std::vector<float> mono;
    std::vector<float> block(static_cast<std::size_t>(kBlockFrames * channels));
    sf_count_t frames;
    while ((frames = sf_readf_float(file, block.data(), kBlockFrames)) > 0) {
        for (sf_count_t f = 0; f < frames; ++f) {
            const float* const samples = block.data() + f * channels;
            float sum = 0.0F;
            for (int c = 0; c < channels; ++c) {
                sum += samples[c];
            }
            mono.push_back(sum / static_cast<float>(channels));
        }
    }
    return mono;
}

std::vector<float> resample(const std::vector<float>& in, double from, double to) {
    const double ratio = to / from;
    std::vector<float> out(
        static_cast<std::size_t>(std::ceil(static_cast<double>(in.size()) * ratio)) + 1);
    std::size_t produced = 0;
    const soxr_error_t error = soxr_oneshot(from, to, 1, in.data(), in.size(), nullptr, out.data(),
                                            out.size(), &produced, nullptr, nullptr, nullptr);
    if (error != nullptr) {
        throw std::runtime_error(std::string("cannot convert the sample rate: ") + error);
    }
    out.resize(produced);
    return out;
}

short to_pcm(float sample) {
    return static_cast<short>(std::clamp(std::lrint(sample * kFullScale), -32768L, 32767L));
}

using File = std::unique_ptr<SNDFILE, int (*)(SNDFILE*)>;

File open_recording(const std::string& path, SF_INFO& info) {
    info = {};
    File file(sf_open(path.c_str(), SFM_READ, &info), sf_close);
    if (file == nullptr) {
        throw std::runtime_error(sf_strerror(nullptr));
    }
    return file;
}

}  // namespace

int recording_rate(const std::string& path) {
    SF_INFO info;
    open_recording(path, info);
    return info.samplerate;
}

std::vector<short> read_recording(const std::string& path, int rate) {
    SF_INFO info;
    const File file = open_recording(path, info);
    std::vector<float> mono = read_mono(file.get(), info.channels);
    if (sf_error(file.get()) != SF_ERR_NO_ERROR) {
        throw std::runtime_error(sf_strerror(file.get()));
    }
    if (info.samplerate != rate) {
        mono = resample(mono, info.samplerate, rate);
    }
    std::vector<short> pcm(mono.size());
    std::transform(mono.begin(), mono.end(), pcm.begin(), to_pcm);
    return pcm;
}
