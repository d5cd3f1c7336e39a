// The segment list: one record per utterance, from one reset to the next.
//
// The driver closes a record at the end of speech; here records are opened and, while speech goes
// on, extended.
#include <algorithm>

#include "dnnvad/constants.h"
#include "dnnvad/dnn_vad.h"
#include "dnnvad/saturate.h"

namespace tz_dnnvad {

namespace {
// A record after another one keeps this lead-in, in frames, where it does not reach back into the
// previous speech.
constexpr int kLeadIn = 10;
}  // namespace

// The start of a first record: the margin before speech, but not before the detect start.
int CMFE::segment_start() const {
    return std::max(saturate_to_int(1LL * _m_n_speech_start - _m_n_start_back_frame),
                    _m_n_detect_start);
}

void CMFE::MakeSegment() {
    const int status = _m_n_status;
    const int last = _m_n_last_status;
    if (!_m_v_segments.empty() && last != kNotStarted && last != kEnded) {
        _m_v_segments.back().end = _m_n_cur_frame;
        _m_v_segments.back().last_speech = _m_n_last_speech;
        return;
    }
    if (status == kSpeaking && last == kNotStarted) {
        _m_v_segments.push_back({segment_start(), -1, _m_n_speech_start, -1});
        return;
    }
    const bool resumed =
        status == kSpeaking || status == kTooLong || (status == kPaused && _m_n_onset_count == 1);
    if (last == kEnded && resumed && !_m_v_segments.empty()) {
        const _VADINFO_ newest = _m_v_segments.back();
        int start =
            std::max(saturate_to_int(1LL * _m_n_speech_start - _m_n_start_back_frame), newest.end);
        if (1LL * _m_n_speech_start - start < kLeadIn) {
            start = std::max(_m_n_speech_start - kLeadIn, newest.last_speech);
        }
        _m_v_segments.push_back({start, -1, _m_n_speech_start, -1});
    }
}

}  // namespace tz_dnnvad
