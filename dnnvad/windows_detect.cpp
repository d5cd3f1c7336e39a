#include "dnnvad/windows_detect.h"

#include <algorithm>
#include <cmath>

#include "dnnvad/constants.h"

namespace tz_dnnvad {

namespace {
constexpr int kAverageFrames = 3;

enum State { kSilence = 0, kSpeech = 1 };
}  // namespace

WindowsDetector::WindowsDetector(const VadConfiger* configer)
    : _avg_len(kAverageFrames),
      _avg_pos(0),
      _sums(kClasses, 0.0F),
      _maxima(kClasses, 0.0F),
      _filled(0),
      _start_threshold(configer->_speech_threshold),
      _end_threshold(configer->_sil_threshold),
      _max_pos(0),
      _max_len(std::max(configer->_smooth_window, 1)),
      _state(kSilence) {
    _history.assign(kClasses, std::vector<float>(static_cast<std::size_t>(_avg_len), 0.0F));
    _smoothed.assign(kClasses, std::vector<float>(static_cast<std::size_t>(_max_len), 0.0F));
}

WindowsDetector::~WindowsDetector() = default;

// `_maxima` stays: it is computed anew before its next use.
void WindowsDetector::reset() {
    _max_pos = _avg_pos = _state = _filled = 0;
    std::fill(_sums.begin(), _sums.end(), 0.0F);
    for (auto* rings : {&_history, &_smoothed}) {
        for (auto& row : *rings) {
            std::fill(row.begin(), row.end(), 0.0F);
        }
    }
}

int WindowsDetector::smooth_detector_one_frame(const float* post, int dim, int frame) {
    if (dim != kClasses) {
        return kInvalid;
    }
    // The first frames after a reset average over what there is: 1, 2, then 3.
    if (_filled != _avg_len) {
        _filled = _avg_pos + 1;
    }
    const auto divisor = static_cast<float>(_filled);
    for (int k = 0; k < dim; ++k) {
        smooth_class(k, post[k], divisor);
    }
    _avg_pos = (_avg_pos + 1) % _avg_len;
    _max_pos = (_max_pos + 1) % _max_len;
    return decide(score(), frame);
}

void WindowsDetector::smooth_class(int k, float posterior, float divisor) {
    const auto i = static_cast<std::size_t>(k);
    float& oldest = _history[i][static_cast<std::size_t>(_avg_pos)];
    _sums[i] = (_sums[i] - oldest) + posterior;
    oldest = posterior;

    std::vector<float>& row = _smoothed[i];
    row[static_cast<std::size_t>(_max_pos)] = _sums[i] / divisor;
    float max = row[0];
    for (const float average : row) {
        max = average > max ? average : max;
    }
    _maxima[i] = max;
}

// The accumulator starts at 1, not 0, and the divisor is fixed: both kept, the thresholds in use are
// tuned to them. A class that was not seen has the maximum 0 and makes the score 0; rounding in the
// running sums can push such a maximum just below 0, which counts as not seen too (logf would give a
// NaN there, and a NaN would start speech).
float WindowsDetector::score() const {
    float sum = 1.0F;
    for (std::size_t k = kFirstSpeechClass; k < kClasses; ++k) {
        sum += logf(_maxima[k] < 0.0F ? 0.0F : _maxima[k]);
    }
    return expf(sum / 6.0F);
}

int WindowsDetector::decide(float score, int frame) {
    switch (_state) {
        case kSilence: {
            // Before frame 0 the threshold is fixed, compared in double precision.
            const bool starts =
                frame >= 0 ? !(_start_threshold > score) : static_cast<double>(score) >= 0.3;
            _state = starts ? kSpeech : kSilence;
            return starts ? kSil2Speech : kSil2Sil;
        }
        case kSpeech:
            if (_end_threshold < score) {
                return kSpeech2Speech;
            }
            _state = kSilence;
            return kSpeech2Sil;
        default:
            return kSil2Sil;
    }
}

}  // namespace tz_dnnvad
