// Recordings and streams as the detector wants them: mono 16-bit PCM at the session's rate.
#ifndef DNNVAD_APP_AUDIO_INPUT_H
#define DNNVAD_APP_AUDIO_INPUT_H

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace CLI {
class App;
}

struct AudioOptions {
    int raw_rate = 0;  // Hz of headerless 16-bit mono PCM; 0: the file has a header
    int channel = 0;   // 1, 2, ...; 0: the average of all channels
};

// Adds --raw and --channel to a command.
void add_audio_options(CLI::App& command, AudioOptions& options);

// Any file that libsndfile reads, or standard input ("-"), read from front to end, a block at a time.
class AudioInput {
public:
    AudioInput(const std::string& path, const AudioOptions& options);  // throws Failure
    ~AudioInput();

    int rate() const;        // Hz, as recorded
    double seconds() const;  // length; 0 when it is not known, as for a pipe
    // Up to `count` samples of the one channel, full scale = 1; fewer only at the end. Throws Failure.
    std::size_t read(float* samples, std::size_t count);

private:
    struct File;
    std::unique_ptr<File> file_;
};

// Converts an input to `rate` Hz and 16 bits. What is beyond full scale is clipped and counted.
class PcmReader {
public:
    PcmReader(AudioInput& input, int rate);  // throws Failure
    ~PcmReader();

    std::size_t read(short* samples, std::size_t count);  // fewer than `count` only at the end
    long long clipped() const;                            // samples so far
    double share() const;                                 // of the input read, 0 .. 1; 0 if unknown

private:
    struct Converter;
    std::unique_ptr<Converter> converter_;
};

// A whole recording, channels averaged. Throws Failure.
std::vector<short> read_recording(const std::string& path, int rate);

// Complete 16-bit mono WAV file of these samples: what goes to standard output. Throws Failure.
void write_wav(FILE* stream, const std::vector<short>& samples, int rate);

// A mono 16-bit WAV file that grows; it appears under its name with commit(), or not at all.
class WavFile {
public:
    WavFile(const std::string& path, int rate);  // throws Failure
    ~WavFile();
    void write(const short* samples, int count);
    void commit();  // throws Failure

private:
    struct File;
    std::unique_ptr<File> file_;
};

#endif
