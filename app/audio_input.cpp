#include "audio_input.h"

#include <sndfile.h>
#include <soxr.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "program.h"

namespace {

constexpr float kFullScale = 32768.0F;
constexpr std::size_t kBlock =
    160;                        // frames read at once: what is spoken into a pipe is not delayed
constexpr int kWavHeader = 44;  // bytes

using SoundFile = std::unique_ptr<SNDFILE, int (*)(SNDFILE*)>;

SoundFile open_sound(const std::string& path, int mode, SF_INFO& info) {
    SoundFile file(path == "-" ? sf_open_fd(STDIN_FILENO, mode, &info, SF_FALSE)
                               : sf_open(path.c_str(), mode, &info),
                   sf_close);
    if (file == nullptr) {
        std::string why =
            sf_error(nullptr) == SF_ERR_SYSTEM ? std::strerror(errno) : sf_strerror(nullptr);
        why.erase(why.find_last_not_of(" .\n") + 1);
        throw Failure(path == "-" ? "standard input" : path, why);
    }
    return file;
}

}  // namespace

void add_audio_options(CLI::App& command, AudioOptions& options) {
    command
        .add_option("--raw", options.raw_rate,
                    "Input is headerless 16-bit little-endian mono PCM of this rate")
        ->type_name("HZ")
        ->check(CLI::Range(1000, 384000));
    command
        .add_option("--channel", options.channel,
                    "Listen to this channel (1, 2, ...) instead of the average of all")
        ->type_name("N")
        ->check(CLI::Range(1, 1024));
}

struct AudioInput::File {
    std::string path;
    SF_INFO info{};
    SoundFile sound{nullptr, sf_close};
    int channel;
    std::vector<float> block;
};

AudioInput::AudioInput(const std::string& path, const AudioOptions& options)
    : file_(std::make_unique<File>()) {
    file_->path = path;
    if (options.raw_rate > 0) {
        file_->info = {
            0, options.raw_rate, 1, SF_FORMAT_RAW | SF_FORMAT_PCM_16 | SF_ENDIAN_LITTLE, 0, 0};
    }
    file_->sound = open_sound(path, SFM_READ, file_->info);
    file_->channel = options.channel;
    if (options.channel > file_->info.channels) {
        throw Failure(path,
                      format("has %d channels, not %d", file_->info.channels, options.channel));
    }
}

AudioInput::~AudioInput() = default;

int AudioInput::rate() const { return file_->info.samplerate; }

double AudioInput::seconds() const {
    // A pipe's length is unknown, or claimed to be the longest possible.
    const bool known = file_->info.seekable != 0 && file_->info.frames > 0;
    return known ? static_cast<double>(file_->info.frames) / rate() : 0.0;
}

std::size_t AudioInput::read(float* samples, std::size_t count) {
    const auto channels = static_cast<std::size_t>(file_->info.channels);
    file_->block.resize(count * channels);
    const sf_count_t got =
        sf_readf_float(file_->sound.get(), file_->block.data(), static_cast<sf_count_t>(count));
    if (sf_error(file_->sound.get()) != SF_ERR_NO_ERROR) {
        throw Failure(file_->path, sf_strerror(file_->sound.get()));
    }
    const auto frames = static_cast<std::size_t>(std::max<sf_count_t>(got, 0));
    for (std::size_t f = 0; f < frames; ++f) {
        const float* const all = &file_->block[f * channels];
        if (file_->channel > 0) {
            samples[f] = all[file_->channel - 1];
            continue;
        }
        float sum = 0.0F;
        for (std::size_t c = 0; c < channels; ++c) {
            sum += all[c];
        }
        samples[f] = sum / static_cast<float>(channels);
    }
    return frames;
}

struct PcmReader::Converter {
    explicit Converter(AudioInput& from) : input(from) {}

    AudioInput& input;
    std::unique_ptr<soxr, void (*)(soxr_t)> resampler{nullptr, soxr_delete};
    std::vector<float> in, out;                           // a block before and after conversion
    std::vector<float> piece = std::vector<float>(4096);  // what the converter gives at once
    std::size_t first = 0;                                // sample of `out` that comes next
    bool ended = false;
    double read_seconds = 0;
    long long clipped = 0;

    // Fills `out`; it stays empty at the end of the input.
    void fill() {
        first = 0;
        out.clear();
        while (out.empty() && !ended) {
            in.resize(kBlock);
            in.resize(input.read(in.data(), kBlock));
            ended = in.size() < kBlock;
            read_seconds += static_cast<double>(in.size()) / input.rate();
            if (resampler == nullptr) {
                out.swap(in);
                continue;
            }
            convert(in.data(), in.size());
            if (ended) {
                drain();
            }
        }
    }

    void convert(const float* samples, std::size_t count) {
        std::size_t done = 0, produced = 0;
        do {
            std::size_t used = 0;
            soxr_process(resampler.get(), samples == nullptr ? nullptr : samples + done,
                         count - done, &used, piece.data(), piece.size(), &produced);
            done += used;
            out.insert(out.end(), piece.begin(),
                       piece.begin() + static_cast<std::ptrdiff_t>(produced));
        } while (done < count || produced == piece.size());
    }

    void drain() { convert(nullptr, 0); }
};

PcmReader::PcmReader(AudioInput& input, int rate) : converter_(new Converter(input)) {
    if (input.rate() != rate) {
        soxr_error_t error = nullptr;
        converter_->resampler.reset(
            soxr_create(input.rate(), rate, 1, &error, nullptr, nullptr, nullptr));
        if (error != nullptr) {
            throw Failure(format("%d Hz", input.rate()), error);
        }
    }
}

PcmReader::~PcmReader() = default;

std::size_t PcmReader::read(short* samples, std::size_t count) {
    Converter& c = *converter_;
    std::size_t done = 0;
    while (done < count) {
        if (c.first == c.out.size()) {
            c.fill();
            if (c.out.empty()) {
                break;
            }
        }
        const float scaled = c.out[c.first++] * kFullScale;
        // (what is no number becomes silence)
        const float rounded = scaled == scaled ? std::nearbyintf(scaled) : 0.0F;
        const float limited = std::clamp(rounded, -kFullScale, kFullScale - 1.0F);
        c.clipped += limited != rounded;
        samples[done++] = static_cast<short>(limited);
    }
    return done;
}

long long PcmReader::clipped() const { return converter_->clipped; }

double PcmReader::share() const {
    const double all = converter_->input.seconds();
    return all > 0 ? std::min(1.0, converter_->read_seconds / all) : 0.0;
}

std::vector<short> read_recording(const std::string& path, int rate) {
    AudioInput input(path, {});
    PcmReader reader(input, rate);
    std::vector<short> all, block(4096);
    while (const std::size_t got = reader.read(block.data(), block.size())) {
        all.insert(all.end(), block.begin(), block.begin() + static_cast<std::ptrdiff_t>(got));
    }
    return all;
}

void write_wav(FILE* stream, const std::vector<short>& samples, int rate) {
    const auto bytes = static_cast<std::uint32_t>(2 * samples.size());
    unsigned char header[kWavHeader] = "RIFF....WAVEfmt ";
    const auto put = [&header](int at, std::uint32_t value, int size) {
        for (int k = 0; k < size; ++k) {
            header[at + k] = static_cast<unsigned char>(value >> (8 * k));
        }
    };
    const auto hertz = static_cast<std::uint32_t>(rate);
    put(4, bytes + kWavHeader - 8, 4);
    put(16, 16, 4);  // length of the format chunk
    put(20, 1, 2);   // PCM
    put(22, 1, 2);   // channels
    put(24, hertz, 4);
    put(28, 2 * hertz, 4);  // bytes per second
    put(32, 2, 2);          // bytes per frame
    put(34, 16, 2);         // bits
    std::memcpy(header + 36, "data", 4);
    put(40, bytes, 4);
    std::fwrite(header, 1, sizeof header, stream);
    for (const short sample : samples) {  // little-endian, as the processors are that this runs on
        std::fwrite(&sample, sizeof sample, 1, stream);
    }
}

struct WavFile::File {
    PendingFile pending;
    SF_INFO info;
    SoundFile sound;
};

WavFile::WavFile(const std::string& path, int rate)
    : file_(new File{PendingFile(path), {}, {nullptr, sf_close}}) {
    file_->info = {0, rate, 1, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 0, 0};
    file_->sound = open_sound(file_->pending.path(), SFM_WRITE, file_->info);
}

WavFile::~WavFile() = default;

void WavFile::write(const short* samples, int count) {
    if (sf_write_short(file_->sound.get(), samples, count) != count) {
        throw Failure(file_->pending.name(), sf_strerror(file_->sound.get()));
    }
}

void WavFile::commit() {
    if (sf_close(file_->sound.release()) != 0) {
        throw Failure(file_->pending.name(), "cannot be written");
    }
    file_->pending.commit();
}
