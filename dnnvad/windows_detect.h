// Posterior smoothing and the two-threshold speech/silence machine.
#ifndef DNNVAD_WINDOWS_DETECT_H
#define DNNVAD_WINDOWS_DETECT_H

#include <vector>

#include "dnnvad/vad_api.h"
#include "dnnvad/vad_config.h"

namespace tz_dnnvad {

// Turns the network's posteriors (9 classes: 0..2 silence, 3..8 speech) into frame states.
//
// Each class is averaged over 3 frames; of the averages the maximum over the last 20 frames counts,
// and the six speech maxima are combined into one score, e^(1/6) times their geometric mean (up to
// 1.1814). A model whose speech classes share the speech probability equally all the time reaches
// 0.197 at most: the classes have to peak at different moments within a stretch of speech.
class DNNVAD_API WindowsDetector {
public:
    // Takes the window length (at least 1 frame) and both thresholds from `configer`, which is not
    // kept.
    explicit WindowsDetector(const VadConfiger* configer);
    ~WindowsDetector();

    // Back to silence with empty windows.
    void reset();

    // Takes the `dim` posteriors of one frame and returns its state: 0 SPEECH2SPEECH, 1 SPEECH2SIL,
    // 2 SIL2SIL, 3 SIL2SPEECH; or 5, and nothing changes, when `dim` is not 9. A negative `frame`
    // index replaces the start threshold by 0.3.
    int smooth_detector_one_frame(const float* post, int dim, int frame);

    int _avg_len;  // length of the moving average, frames
    int _avg_pos;  // write position in `_history` rows
    std::vector<std::vector<float>>
        _history;  // 9 x _avg_len: latest posteriors of each class, rings
    std::vector<std::vector<float>>
        _smoothed;               // 9 x _max_len: latest averages of each class, rings
    std::vector<float> _sums;    // running sum of each `_history` row
    std::vector<float> _maxima;  // maximum of each `_smoothed` row
    int _filled;                 // frames in `_history` until it is full
    float _start_threshold;      // score needed to enter speech
    float _end_threshold;        // score at or below which speech ends
    int _max_pos;                // write position in `_smoothed` rows
    int _max_len;                // length of the maximum window, frames
    int _state;                  // 0 = silence, 1 = speech

private:
    DNNVAD_LOCAL void smooth_class(int k, float posterior, float divisor);
    DNNVAD_LOCAL float score() const;
    DNNVAD_LOCAL int decide(float score, int frame);
};

}  // namespace tz_dnnvad

#endif
