#include "audio_input.h"

#include <fcntl.h>
#include <sndfile.h>
#include <soxr.h>
#include <sys/stat.h>
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
    160;  // frames read at once: what is spoken into a pipe is not delayed
constexpr sf_count_t kMostFrames = sf_count_t{1} << 48;
constexpr int kLeastRate = 1000, kMostRate = 384000;  // Hz

using SoundFile = std::unique_ptr<SNDFILE, int (*)(SNDFILE*)>;

// By descriptor if there is one; but some formats are known by the file's name alone.
SoundFile open_sound(const std::string& path, int mode, SF_INFO& info, int descriptor = -1) {
    const SF_INFO wanted = info;
    SoundFile file(descriptor < 0 ? nullptr : sf_open_fd(descriptor, mode, &info, SF_FALSE),
                   sf_close);
    if (file == nullptr && descriptor != STDIN_FILENO &&
        (descriptor < 0 || lseek(descriptor, 0, SEEK_SET) == 0)) {
        info = wanted;
        file.reset(sf_open(path.c_str(), mode, &info));
    }
    if (file == nullptr) {
        std::string why =
            sf_error(nullptr) == SF_ERR_SYSTEM ? std::strerror(errno) : sf_strerror(nullptr);
        why.erase(why.find_last_not_of(" .\n") + 1);
        throw Failure(path, why);
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

struct AudioInput::File {
    std::string path;
    int descriptor = STDIN_FILENO;
    SF_INFO info{};
    SoundFile sound{nullptr, sf_close};
    int channel;
    std::vector<float> block;
    sf_count_t heard = 0;     // frames
    sf_count_t promised = 0;  // frames, by the header; 0 if it is known not to know
    bool open_ended = false;  // it is, and that of a file

    ~File() {
        if (descriptor > STDIN_FILENO) {
            close(descriptor);
        }
    }
    void look_behind_header(sf_count_t size);
};

// Recorders that stream, or were cut off, leave WAV files with a wrong length or none: 0, or (nearly) all
// that 31 or 32 bits hold. What follows the header then is audio, unless it looks like a chunk.
void AudioInput::File::look_behind_header(sf_count_t size) {
    const int coding = info.format & SF_FORMAT_SUBMASK,
              container = info.format & ~SF_FORMAT_SUBMASK;
    const bool large = container == SF_FORMAT_RF64;
    sf_count_t begin = lseek(descriptor, 0, SEEK_CUR);  // of the audio; -1: a pipe
    promised = begin >= 0 && info.frames < kMostFrames ? info.frames : 0;
    if (coding > SF_FORMAT_ALAW ||
        (container != SF_FORMAT_WAV && container != SF_FORMAT_WAVEX && (!large || begin < 0))) {
        return;
    }
    const sf_count_t width = sf_current_byterate(sound.get()) / info.samplerate;  // of a frame
    sf_count_t claimed = info.frames * width;                                     // bytes
    std::uint32_t next[2] = {};
    const char* const name = reinterpret_cast<const char*>(next);
    bool more = false;  // than libsndfile would read
    if (begin >= 0) {
        const sf_count_t end = begin + claimed + claimed % 2, rest = size - end;
        more = rest >= 8 + width && pread(descriptor, next, 8, end) == 8 &&
               (next[1] > rest ||
                !std::all_of(name, name + 4, [](char c) { return c >= ' ' && c <= '~'; }));
        more = pread(descriptor, &(claimed = 0), large ? 8 : 4, large ? 28 : begin - 4) > 0 && more;
    }
    const bool unknown = more || ((claimed + 0x10000) & 0x7fffffff) <= 0x10000;
    promised = unknown ? 0 : claimed / width;
    open_ended = unknown && begin >= 0;
    if (more || (unknown && begin < 0)) {
        info = {0, info.samplerate, info.channels, SF_FORMAT_RAW | SF_ENDIAN_LITTLE | coding, 0, 0};
        lseek(descriptor, 0, SEEK_SET);  // (a pipe stays where it is)
        sound = open_sound(path, SFM_READ, info, descriptor);
        if (begin >= 0) {
            sf_command(sound.get(), SFC_SET_RAW_START_OFFSET, &begin, sizeof begin);
            sf_seek(sound.get(), 0, SEEK_SET);
        }
    }
}

AudioInput::AudioInput(const std::string& path, const AudioOptions& options)
    : file_(std::make_unique<File>()) {
    struct stat about {};
    file_->path = path == "-" ? "standard input" : path;
    if (path != "-") {
        file_->descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    }
    if (fstat(file_->descriptor, &about) == 0 && !S_ISFIFO(about.st_mode) &&
        (S_ISDIR(about.st_mode) || (S_ISREG(about.st_mode) && about.st_size == 0))) {
        throw Failure(file_->path, S_ISDIR(about.st_mode) ? "is a folder" : "is empty");
    }
    if (options.raw_rate > 0) {
        file_->info = {
            0, options.raw_rate, 1, SF_FORMAT_RAW | SF_FORMAT_PCM_16 | SF_ENDIAN_LITTLE, 0, 0};
    }
    file_->sound = open_sound(file_->path, SFM_READ, file_->info, file_->descriptor);
    if (rate() < kLeastRate || rate() > kMostRate) {
        throw Failure(file_->path, format("has a sample rate of %d Hz", rate()));
    }
    file_->look_behind_header(about.st_size);
    file_->channel = options.channel;
    if (options.channel > file_->info.channels) {
        throw Failure(file_->path,
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
    file_->heard += static_cast<sf_count_t>(frames);
    const sf_count_t missing = file_->promised - file_->heard;
    if (frames < count && stopping == 0 &&
        (file_->heard == 0 || file_->open_ended || missing > 0)) {
        const double hertz = rate();
        const std::string what =
            file_->heard == 0   ? "holds no samples"
            : file_->open_ended ? "its header tells no length, or a wrong one: heard to its end"
                                : format("ends after %.2f s, %.2f s before it should",
                                         static_cast<double>(file_->heard) / hertz,
                                         static_cast<double>(missing) / hertz);
        std::fprintf(stderr, "dnnvad: warning: %s: %s\n", file_->path.c_str(), what.c_str());
    }
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
    // Little-endian, as the processors are that this runs on.
    const auto name = [](const char* text) {
        std::uint32_t word = 0;
        std::memcpy(&word, text, sizeof word);
        return word;
    };
    const auto bytes = static_cast<std::uint32_t>(2 * samples.size());
    const auto hertz = static_cast<std::uint32_t>(rate);
    constexpr std::uint32_t kMonoPcm = 1 << 16 | 1, k16Bits = 16 << 16 | 2;  // (2 bytes a frame)
    const std::uint32_t header[] = {name("RIFF"), bytes + 36,   name("WAVE"), name("fmt "),
                                    16,           kMonoPcm,     hertz,        2 * hertz,
                                    k16Bits,      name("data"), bytes};
    std::fwrite(header, 1, sizeof header, stream);
    std::fwrite(samples.data(), sizeof(short), samples.size(), stream);
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
