#include "audio_input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <numeric>

namespace {

constexpr float kFullScale = 32768.0F;
constexpr std::size_t kBlock = 160;  // frames converted at once: what is spoken is not delayed
constexpr sf_count_t kMostFrames = 1000000000000000;  // what claims more does not know
constexpr char kPipe[] = " (WAV can come through a pipe, some formats cannot)";
constexpr int kLeastRate = 1000, kMostRate = 384000;  // Hz

// By descriptor, which is closed with it unless it is standard input, or by name if there is none: some
// formats are known by the file's name alone.
SoundFile open_sound(const std::string& path, int mode, SF_INFO& info, int descriptor = -1) {
    const SF_INFO wanted = info;
    const bool named =
        descriptor < 0 || (descriptor != STDIN_FILENO && lseek(descriptor, 0, SEEK_CUR) >= 0);
    SoundFile file(
        descriptor < 0 ? nullptr : sf_open_fd(descriptor, mode, &info, descriptor != STDIN_FILENO),
        sf_close);
    if (file == nullptr && named) {
        info = wanted;
        file.reset(sf_open(path.c_str(), mode, &info));
    }
    if (file == nullptr) {
        std::string why =
            sf_error(nullptr) == SF_ERR_SYSTEM ? std::strerror(errno) : sf_strerror(nullptr);
        why.erase(why.find_last_not_of(" .\n") + 1);
        throw Failure(path, why + (named ? "" : kPipe));
    }
    return file;
}

}  // namespace

void add_audio_options(CLI::App& command, AudioOptions& options) {
    command
        .add_option("--raw", options.raw_rate,
                    "Input is headerless 16-bit little-endian mono PCM of this rate")
        ->type_name("HZ")
        ->check(CLI::Range(kLeastRate, kMostRate));
    command
        .add_option("--channel", options.channel,
                    "Listen to this channel (1, 2, ...) instead of the average of all")
        ->type_name("N")
        ->check(CLI::Range(1, 1024));
}

// Recorders that stream, or were cut off, leave WAV files with a wrong length or none: 0, or (nearly) all
// that 31 or 32 bits hold. What follows the header then is audio, unless it looks like a chunk.
void AudioInput::look_behind_header(sf_count_t size) {
    const int coding = info_.format & SF_FORMAT_SUBMASK, container = info_.format - coding;
    const bool large = container == SF_FORMAT_RF64;
    sf_count_t begin = lseek(descriptor_, 0, SEEK_CUR);  // of the audio; -1: a pipe
    promised_ = begin < 0 || info_.frames > kMostFrames ? 0 : static_cast<double>(info_.frames);
    if (coding > SF_FORMAT_ALAW ||
        (container != SF_FORMAT_WAV && container != SF_FORMAT_WAVEX && (!large || begin < 0))) {
        return;
    }
    const sf_count_t width = sf_current_byterate(sound_.get()) / info_.samplerate;  // of a frame
    sf_count_t claimed = info_.frames * width;                                      // bytes
    std::uint32_t next[2] = {};
    const char* const name = reinterpret_cast<const char*>(next);
    bool more = false;  // than libsndfile would read
    if (begin >= 0) {
        const sf_count_t end = begin + claimed + claimed % 2, rest = size - end;
        more = rest >= 8 + width && pread(descriptor_, next, 8, end) == 8 &&
               (next[1] > rest ||
                !std::all_of(name, name + 4, [](char c) { return c >= ' ' && c <= '~'; }));
        more =
            pread(descriptor_, &(claimed = 0), large ? 8 : 4, large ? 28 : begin - 4) > 0 && more;
    }
    const bool unknown = more || ((claimed + 0x10000) & 0x7fffffff) <= 0x10000;
    const auto frames = claimed / width;
    promised_ = unknown ? 0 : static_cast<double>(frames);
    open_ended_ = unknown && begin >= 0;
    if (more || (unknown && begin < 0)) {
        lseek(descriptor_, 0, SEEK_SET);  // (a pipe stays where it is)
        info_ = {0, rate(), info_.channels, SF_FORMAT_RAW | SF_ENDIAN_LITTLE | coding, 0, 0};
        sound_ = open_sound(path_, SFM_READ, info_,
                            descriptor_ == STDIN_FILENO ? STDIN_FILENO : dup(descriptor_));
        if (begin >= 0) {
            sf_command(sound_.get(), SFC_SET_RAW_START_OFFSET, &begin, sizeof begin);
            sf_seek(sound_.get(), 0, SEEK_SET);
        }
    }
}

AudioInput::AudioInput(const std::string& path, const AudioOptions& options)
    : path_(path == "-" ? "standard input" : path),
      descriptor_(STDIN_FILENO),
      channel_(options.channel) {
    struct stat about {};
    path == "-" ? fstat(STDIN_FILENO, &about) : stat(path.c_str(), &about);
    if (S_ISDIR(about.st_mode) || (S_ISREG(about.st_mode) && about.st_size == 0)) {
        throw Failure(path_, S_ISDIR(about.st_mode) ? "is a folder" : "is empty");
    }
    if (options.raw_rate > 0) {
        info_ = {0, options.raw_rate, 1, SF_FORMAT_RAW | SF_FORMAT_PCM_16 | SF_ENDIAN_LITTLE, 0, 0};
    }
    if (path != "-") {
        descriptor_ = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    }
    sound_ = open_sound(path_, SFM_READ, info_, descriptor_);
    if (rate() < kLeastRate || rate() > kMostRate) {
        throw Failure(path_, format("has a sample rate of %d Hz, not %d to %d", rate(), kLeastRate,
                                    kMostRate));
    }
    look_behind_header(about.st_size);
    if (channel_ > info_.channels) {
        throw Failure(path_, format("has %d channels, not %d", info_.channels, channel_));
    }
}

double AudioInput::share() const {
    const auto all = static_cast<double>(info_.frames);
    return info_.seekable != 0 && all > 0 ? std::min(1.0, heard_ / all) : 0.0;
}

void AudioInput::convert(int rate) {
    if (rate == this->rate()) {
        return;
    }
    soxr_error_t error = nullptr;
    resampler_.reset(soxr_create(this->rate(), rate, 1, &error, nullptr, nullptr, nullptr));
    if (error != nullptr) {
        throw Failure(format("%d Hz", this->rate()), error);
    }
    in_.resize(kBlock);
    block_.resize(kBlock * static_cast<std::size_t>(info_.channels));
    const auto supply = [](void* input, soxr_cbuf_t* samples, std::size_t count) {
        auto& self = *static_cast<AudioInput*>(input);
        *samples = self.in_.data();
        return self.read_recorded(self.in_.data(), std::min(count, kBlock));
    };
    soxr_set_input_fn(resampler_.get(), supply, this, kBlock);
}

// The one channel at its own rate, full scale = 1. Nothing may be thrown through the converter: read()
// asks for errors.
std::size_t AudioInput::read_recorded(float* samples, std::size_t count) {
    const auto channels = static_cast<std::size_t>(info_.channels);
    block_.resize(count * channels);
    if (ended_) {
        return 0;
    }
    const sf_count_t got =
        sf_readf_float(sound_.get(), block_.data(), static_cast<sf_count_t>(count));
    const auto frames = static_cast<std::size_t>(std::max<sf_count_t>(got, 0));
    heard_ += static_cast<double>(frames);
    ended_ = frames < count;
    for (std::size_t f = 0; f < frames; ++f) {
        const float* const all = &block_[f * channels];
        samples[f] = channel_ > 0 ? all[channel_ - 1]
                                  : std::accumulate(all, all + channels, 0.0F) /
                                        static_cast<float>(channels);
    }
    return frames;
}

std::size_t AudioInput::read(short* samples, std::size_t count) {
    const bool ended = ended_;
    out_.resize(count);
    const std::size_t got = resampler_ == nullptr
                                ? read_recorded(out_.data(), count)
                                : soxr_output(resampler_.get(), out_.data(), count);
    if (sf_error(sound_.get()) != SF_ERR_NO_ERROR) {
        const bool pipe = lseek(descriptor_, 0, SEEK_CUR) < 0;
        throw Failure(path_, std::string(sf_strerror(sound_.get())) + (pipe ? kPipe : ""));
    }
    if (ended_ && !ended && stopping == 0 && (heard_ == 0 || open_ended_ || heard_ < promised_)) {
        const std::string what =
            heard_ == 0   ? "holds no samples"
            : open_ended_ ? "its header tells no length, or a wrong one: heard to its end"
                          : format("ends after %.2f s, %.2f s before it should", heard_ / rate(),
                                   (promised_ - heard_) / rate());
        print_warning(path_ + ": " + what);
    }
    for (std::size_t k = 0; k < got; ++k) {
        const float scaled = out_[k] * kFullScale;
        // (what is no number becomes silence)
        const float rounded = scaled == scaled ? std::nearbyintf(scaled) : 0.0F;
        const float limited = std::clamp(rounded, -kFullScale, kFullScale - 1.0F);
        clipped_ += limited != rounded;
        samples[k] = static_cast<short>(limited);
    }
    return got;
}

std::vector<short> read_recording(const std::string& path, int rate) {
    AudioInput input(path, {});
    input.convert(rate);
    std::vector<short> all, block(4096);
    while (const std::size_t got = input.read(block.data(), block.size())) {
        all.insert(all.end(), block.begin(), block.begin() + static_cast<std::ptrdiff_t>(got));
    }
    return all;
}

void write_wav(FILE* stream, const std::vector<short>& samples, int rate) {
    const auto bytes = static_cast<std::uint32_t>(2 * samples.size());
    const auto hertz = static_cast<std::uint32_t>(rate);
    const auto word = [](std::uint32_t value) {  // little-endian, as the processors are
        return std::string(reinterpret_cast<const char*>(&value), sizeof value);
    };
    constexpr std::uint32_t kMonoPcm = 1 << 16 | 1, k16Bits = 16 << 16 | 2;  // (2 bytes a frame)
    const std::string header = "RIFF" + word(bytes + 36) + "WAVEfmt " + word(16) + word(kMonoPcm) +
                               word(hertz) + word(2 * hertz) + word(k16Bits) + "data" + word(bytes);
    std::fwrite(header.data(), 1, header.size(), stream);
    std::fwrite(samples.data(), sizeof(short), samples.size(), stream);
}

WavFile::WavFile(const std::string& path, int rate)
    : file_(path),
      info_{0, rate, 1, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 0, 0},
      sound_(open_sound(file_.written(), SFM_WRITE, info_)) {}

void WavFile::write(const short* samples, int count) {
    if (sf_write_short(sound_.get(), samples, count) != count) {
        throw Failure(file_.name(), sf_strerror(sound_.get()));
    }
}

void WavFile::commit() {
    if (sf_close(sound_.release()) != 0) {
        throw Failure(file_.name(), std::strerror(errno));
    }
    file_.commit();
}
