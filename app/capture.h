// Sound from an ALSA capture device.
#ifndef DNNVAD_APP_CAPTURE_H
#define DNNVAD_APP_CAPTURE_H

#include <alsa/asoundlib.h>

#include <csignal>
#include <cstdio>
#include <memory>
#include <string>

// Mono 16-bit PCM at `rate` Hz; ALSA converts where the device has nothing of the kind.
class Capture {
public:
    // `stop`, borrowed, ends the stream once a signal handler has set it. Throws Failure.
    Capture(const std::string& device, int rate, const volatile std::sig_atomic_t& stop);

    // The next samples; fewer than `count` when the signal or the device has ended the stream.
    int read(short* samples, int count);
    int overruns() const { return overruns_; }  // times that samples were lost; the stream goes on
    const std::string& failure() const { return failure_; }  // why the device gave up, or ""

private:
    int open(const std::string& device);
    bool configure(unsigned rate);

    std::unique_ptr<snd_pcm_t, int (*)(snd_pcm_t*)> pcm_{nullptr, snd_pcm_close};
    const volatile std::sig_atomic_t& stop_;
    int overruns_ = 0;
    std::string failure_;
};

// Writes a line for each device that sound can be captured from. Throws Failure.
void list_capture_devices(FILE* stream);

#endif
