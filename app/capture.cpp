#include "capture.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "program.h"

namespace {

constexpr unsigned kPeriodsPerSecond = 100;
constexpr unsigned kBufferPeriods = 50;  // how far the program may fall behind

// In place of ALSA's own messages: what matters comes as an error number too.
extern "C" void stay_silent(const char*, int, const char*, int, const char*, ...) {}

}  // namespace

Capture::Capture(const std::string& device, int rate) {
    snd_lib_error_set_handler(stay_silent);
    if (const int error = open(device); error < 0) {
        throw Failure("capture device " + device,
                      std::string(snd_strerror(error)) + " (live --list names the devices)");
    }
    // A device that has only other rates or more channels is opened anew through ALSA's converter.
    if (!configure(rate) && (open("plug:SLAVE='" + device + "'") < 0 || !configure(rate))) {
        throw Failure(device,
                      format("offers no 16-bit capture at %d Hz, not even converted", rate));
    }
}

// A busy device is an error; what is read from a free one is waited for.
int Capture::open(const std::string& device) {
    snd_pcm_t* pcm = nullptr;
    pcm_.reset();
    const int error = snd_pcm_open(&pcm, device.c_str(), SND_PCM_STREAM_CAPTURE, SND_PCM_NONBLOCK);
    pcm_.reset(pcm);
    return error < 0 ? error : snd_pcm_nonblock(pcm, 0);
}

bool Capture::configure(int rate) {
    snd_pcm_t* const pcm = pcm_.get();
    snd_pcm_hw_params_t* params = nullptr;
    const auto hertz = static_cast<unsigned>(rate);
    snd_pcm_uframes_t period = hertz / kPeriodsPerSecond, buffer = kBufferPeriods * period;
    const bool done =
        snd_pcm_hw_params_malloc(&params) >= 0 && snd_pcm_hw_params_any(pcm, params) >= 0 &&
        snd_pcm_hw_params_set_rate_resample(pcm, params, 1) >= 0 &&
        snd_pcm_hw_params_set_access(pcm, params, SND_PCM_ACCESS_RW_INTERLEAVED) >= 0 &&
        snd_pcm_hw_params_set_format(pcm, params, SND_PCM_FORMAT_S16_LE) >= 0 &&
        snd_pcm_hw_params_set_channels(pcm, params, 1) >= 0 &&
        snd_pcm_hw_params_set_rate(pcm, params, hertz, 0) >= 0 &&
        snd_pcm_hw_params_set_period_size_near(pcm, params, &period, nullptr) >= 0 &&
        snd_pcm_hw_params_set_buffer_size_near(pcm, params, &buffer) >= 0 &&
        snd_pcm_hw_params(pcm, params) >= 0;
    snd_pcm_hw_params_free(params);
    return done;
}

int Capture::read(short* samples, int count) {
    std::fill_n(samples, count, short{0});  // (a device that plays a file is silent beyond its end)
    int done = 0;
    while (done < count && stopping == 0 && failure_.empty()) {
        const auto wanted = static_cast<snd_pcm_uframes_t>(count - done);
        const int got = static_cast<int>(snd_pcm_readi(pcm_.get(), samples + done, wanted));
        done += std::max(got, 0);
        overruns_ += got == -EPIPE || got == -ESTRPIPE;
        if (got < 0 && snd_pcm_recover(pcm_.get(), got, 1) < 0) {
            failure_ = snd_strerror(got);
        }
    }
    return done;
}

void list_capture_devices(FILE* stream) {
    void** hints = nullptr;
    snd_lib_error_set_handler(stay_silent);
    if (const int error = snd_device_name_hint(-1, "pcm", &hints); error < 0) {
        throw Failure("capture devices", snd_strerror(error));
    }
    for (void** hint = hints; *hint != nullptr; ++hint) {
        const auto get = [hint](const char* what) {
            const std::unique_ptr<char, void (*)(void*)> text(snd_device_name_get_hint(*hint, what),
                                                              std::free);
            return std::string(text != nullptr ? text.get() : "");
        };
        const std::string direction = get("IOID");
        std::string about = get("DESC");
        std::replace(about.begin(), about.end(), '\n', ' ');
        if (direction.empty() || direction == "Input") {  // (empty: both)
            std::fprintf(stream, "%-32s %s\n", get("NAME").c_str(), about.c_str());
        }
    }
    snd_device_name_free_hint(hints);
}
