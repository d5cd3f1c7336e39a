// Sound from an ALSA capture device.
#ifndef DNNVAD_APP_CAPTURE_H
#define DNNVAD_APP_CAPTURE_H

#include <alsa/asoundlib.h>

#include <cstdio>
#include <memory>
#include <string>

// Mono 16-bit PCM at `rate` Hz; ALSA converts where the device has nothing of the kind.
class Capture {
public:
    Capture(const std::string& device, int rate);  // throws Failure

    // The next samples; fewer than `count` when a signal or the device has ended the stream.
    int read(short* samples, int count);
    int overruns() const { return overruns_; }  // times that samples were lost; the stream goes on
    const std::string& failure() const { return failure_; }  // why the device gave up, or ""

private:
    int open(const std::string& device);
    bool configure(int rate);

    std::unique_ptr<snd_pcm_t, int (*)(snd_pcm_t*)> pcm_{nullptr, snd_pcm_close};
    int overruns_ = 0;
    std::string failure_;
};

// Writes a line for each device that sound can be captured from. Throws Failure.
void list_capture_devices(FILE* stream);

#endif
