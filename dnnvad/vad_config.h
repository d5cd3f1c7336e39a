// The holder of the smoother's settings.
#ifndef DNNVAD_VAD_CONFIG_H
#define DNNVAD_VAD_CONFIG_H

#include "dnnvad/vad_api.h"

namespace tz_dnnvad {

// Carries the smoother's settings from the session to the WindowsDetector; one per session.
class DNNVAD_API VadConfiger {
public:
    VadConfiger();
    ~VadConfiger();

    // Sets the window to 20 frames and returns true; there is no file behind it.
    bool load();

    int _flag;                // not read anywhere
    int _smooth_window;       // length of the smoother's maximum window, frames
    float _speech_threshold;  // score at or above which speech starts
    float _sil_threshold;     // score at or below which speech ends
};

}  // namespace tz_dnnvad

#endif
