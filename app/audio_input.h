// Recordings and streams as the detector wants them: mono 16-bit PCM at the session's rate.
#ifndef DNNVAD_APP_AUDIO_INPUT_H
#define DNNVAD_APP_AUDIO_INPUT_H

#include <sndfile.h>
#include <soxr.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "program.h"

struct AudioOptions {
    int raw_rate = 0;  // Hz of headerless 16-bit mono PCM; 0: the file has a header
    int channel = 0;   // 1, 2, ...; 0: the average of all channels
};

// Adds --raw and --channel to a command.
void add_audio_options(CLI::App& command, AudioOptions& options);

using SoundFile = std::unique_ptr<SNDFILE, int (*)(SNDFILE*)>;

// Any file that libsndfile reads, or standard input ("-"), read from front to end, a block at a time:
// 16 bits, one channel. What is beyond full scale is clipped and counted. Warns at the end of one that
// holds less than it should, or whose header was no help.
class AudioInput {
public:
    AudioInput(const std::string& path, const AudioOptions& options);  // throws Failure

    int rate() const { return info_.samplerate; }  // Hz, as recorded
    void convert(int rate);  // to this many Hz, before anything is read; throws Failure
    double share() const;    // read so far, 0 .. 1; 0 when the length is not known, as of a pipe
    // Up to `count` samples; fewer only at the end. Throws Failure.
    std::size_t read(short* samples, std::size_t count);
    long long clipped() const { return clipped_; }  // samples so far

private:
    void look_behind_header(sf_count_t size);
    std::size_t read_recorded(float* samples, std::size_t count);

    std::string path_;
    int descriptor_, channel_;
    SF_INFO info_{};
    SoundFile sound_{nullptr, sf_close};
    std::unique_ptr<soxr, void (*)(soxr*)> resampler_{nullptr, soxr_delete};
    std::vector<float> block_, in_, out_;  // all channels; before and after conversion
    double heard_ = 0,
           promised_ = 0;      // frames: read, and claimed by the header if that may be right
    bool open_ended_ = false;  // it may not, and is that of a file
    bool ended_ = false;
    long long clipped_ = 0;
};

// A whole recording, channels averaged. Throws Failure.
std::vector<short> read_recording(const std::string& path, int rate);

// Complete 16-bit mono WAV file of these samples: what goes to standard output. Throws Failure.
void write_wav(FILE* stream, const std::vector<short>& samples, int rate);

// A mono 16-bit WAV file that grows; it appears under its name with commit(), or not at all.
class WavFile {
public:
    WavFile(const std::string& path, int rate);  // throws Failure
    void write(const short* samples, int count);
    void commit();  // throws Failure

private:
    OutputFile file_;
    SF_INFO info_;
    SoundFile sound_;
};

#endif
