// The detection driver and the end-point state machine.
//
// A pass of mfeDNNDetect runs over the frames that are new: gather the frame, judge its state, move
// the state machine, adapt the pause limit. Frame states drive the session status:
//
//     0 waiting --onset--> 1 speaking <--> 2 pause --longer than the pause limit--> 6 ended
//     6 --onset--> 1        0, 2, 6 --silence limit--> 3 timed out      1 --too long--> 5
#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "dnnvad/constants.h"
#include "dnnvad/dnn_vad.h"
#include "dnnvad/ring.h"
#include "dnnvad/saturate.h"
#include "dnnvad/vad_log.h"

namespace tz_dnnvad {

namespace {

constexpr int kGatingPause = 30;  // frames between two starts of gating

constexpr int kBlip = 9;       // frames: a first utterance up to this long is forgotten
constexpr int kMinBleep = 15;  // frames: shorter ones are not the prompt

}  // namespace

// ---- The pass -------------------------------------------------------------------------------------

int CMFE::mfeDNNDetect() {
    if (!_m_b_vad_enable) {
        return detect_pass_through();
    }
    if (_m_n_user_stop == 1) {
        return UserStop();
    }
    if (!_m_b_ready || !begin_pass()) {
        return mfeReturnStatus(0);
    }
    for (int f = _m_n_cur_frame; f < _m_n_frames_avail; ++f) {
        gather_frame(f);
        const int state = frame_state(f);
        if (_m_n_bleep_detect != 0) {
            mfeSaveFFT(f, kSpecSmooth, kSpecFrames, _m_p_spec_log_buff,
                       _m_p_spec_log_smooth_cur_frame, _m_p_spec_log_smooth, _m_n_fft_size);
        }
        if (_m_n_debug_log > 0) {
            VAD_DEBUG("frame:%d, vadstate:%s\n", f, g_AudioState[state]);
        }
        _m_p_frame_state[ring::index(f, _m_n_ring_frames)] = static_cast<unsigned char>(state);
        // A time-out or an end of speech leaves the rest of the pass unscored.
        if (transition(f, state)) {
            return mfeReturnStatus(0);
        }
        mfeAdjustPauseThreshold(f - _m_n_speech_start);
    }
    _m_n_cur_frame = _m_n_frames_avail;
    const bool past_margin =
        _m_n_status == kPaused && _m_n_cur_frame - _m_n_last_speech > _m_n_end_back_frame;
    _m_n_out_end = past_margin ? margin_end() : _m_n_speech_end_sample;
    MakeSegment();
    return mfeReturnStatus(0);
}

// Detection off: everything is one stretch of speech.
int CMFE::detect_pass_through() {
    _m_n_speech_end_sample = _m_n_samples_in;
    const int frames = mfeGetFrame(_m_n_samples_in);
    if (_m_v_segments.empty()) {
        _m_v_segments.push_back({0, frames, 0, frames});
    } else {
        _m_v_segments.back().end = frames;
        _m_v_segments.back().last_speech = frames;
    }
    return _m_b_data_end ? kPaused : kSpeaking;
}

// Counts the frames that have arrived and sets the pass up; false when there is nothing to score.
bool CMFE::begin_pass() {
    _m_n_pass_first_frame = _m_n_cur_frame = _m_n_frames_avail;
    const int samples = _m_b_16k_model ? _m_n_samples_16k : _m_n_samples_8k;
    _m_n_frames_avail =
        samples < frame_length() ? 0 : (samples - frame_length()) / model_shift() + 1;
    // The gate skips whole calls only: once a frame beyond the detect start has arrived, the pass
    // runs from the next frame, which may still lie before it. Kept.
    if (_m_n_cur_frame < _m_n_detect_start && _m_n_detect_start >= _m_n_frames_avail) {
        _m_n_pass_first_frame = _m_n_frames_avail;
        return false;
    }
    if (_m_n_frames_avail <= _m_n_cur_frame) {
        return false;
    }
    _m_n_out_end = _m_n_speech_end_sample;
    _m_n_speech_end_sample = _m_n_samples_in;
    _m_n_status = _m_n_last_status;
    if (_m_n_status == kNotStarted || _m_n_status == kEnded) {
        _m_n_speech_start = _m_n_frames_avail;  // an onset moves it to the front
    }
    return true;
}

// Samples of the ring that feeds the model, from a position at the model's rate.
template <typename Sample>
void CMFE::read_model_ring(long long position, int count, Sample* samples) {
    const short* const ring = _m_b_16k_model ? _m_p_data_in : _m_p_data_feed;
    ring::read(ring, ring == _m_p_data ? _m_n_ring_samples : _m_n_ring_samples8k, position, count,
               samples);
}

void CMFE::gather_frame(int frame) {
    read_model_ring(1LL * frame * model_shift(), frame_length(), _m_p_frame_samples);
}

// The state of the gathered frame: from the network, or silence while the energy detector gates.
int CMFE::frame_state(int frame) {
    switch (_m_n_evad_active) {
        case 0:
            return mfeVADOneFrame(frame, true);
        case 1: {
            short* const samples = _m_b_16k_model ? _m_p_short_frame_in16k : _m_p_short_frame_in;
            read_model_ring(1LL * frame * model_shift(), model_shift(), samples);
            // Its onset hands the stream back to the network from the next frame on.
            if (_m_p_evad_instance->evad_process_one_frame(samples, model_shift()) == kSil2Speech) {
                _m_n_evad_active = 0;
                _m_p_evad_instance->free();
            }
            return kSil2Sil;
        }
        default:
            return kInvalid;
    }
}

// ---- Scoring --------------------------------------------------------------------------------------

int CMFE::mfeVADOneFrame(int frame, bool /*smooth*/) {
    if (!_m_b_ready) {
        return kInvalid;
    }
    if (!compute_posteriors(frame_length(), frame)) {
        return kNotBegin;
    }
    return _m_p_windows_detector->smooth_detector_one_frame(_m_p_dst_nn, _m_n_nn_dim, frame);
}

int CMFE::mfeVADOneFrame(const short* samples, int count, int frame, bool smooth) {
    if (!_m_b_ready) {
        return kInvalid;
    }
    for (int i = 0; samples != nullptr && i < count && i < frame_length(); ++i) {
        _m_p_frame_samples[i] = static_cast<float>(samples[i]);
    }
    if (!compute_posteriors(count, frame)) {
        return kNotBegin;
    }
    if (smooth) {
        return _m_p_windows_detector->smooth_detector_one_frame(_m_p_dst_nn, _m_n_nn_dim, frame);
    }
    return _m_n_nn_dim >= kClasses ? getFrameState(_m_p_dst_nn, _m_n_nn_dim)
                                   : static_cast<int>(kInvalid);
}

// False when a stage reports -2: it cannot supply the frame yet. The library's own stages never do;
// any other failure goes on with the features as they stand. Kept for hosts with stages of their own.
bool CMFE::compute_posteriors(int count, int frame) {
    constexpr int kNotYet = -2;
    _m_p_feat_translator->translate(_m_p_frame_samples, count, frame);
    if (_m_p_feat_translator->read(_m_p_dst_feature, _m_n_feat_dim) == kNotYet) {
        return false;
    }
    _m_p_dnn->forward(_m_p_dst_feature, _m_n_feat_dim, _m_p_dst_nn);
    return true;
}

int CMFE::getFrameState(const float* posteriors, int /*dim*/) {
    if (posteriors == nullptr) {
        return 0;
    }
    float silence = posteriors[0];
    for (int k = 1; k < kFirstSpeechClass; ++k) {
        silence += posteriors[k];
    }
    float speech = posteriors[kFirstSpeechClass];
    for (int k = kFirstSpeechClass + 1; k < kClasses; ++k) {
        speech += posteriors[k];
    }
    return silence <= speech ? 1 : 0;
}

void CMFE::mfeSaveFFT(int frame, int nsmooth, int nframes, float* log_buff, float* cur,
                      float* log_smooth, int dim) {
    if (frame < 0 || nsmooth < 1 || frame >= nframes - 1 || log_buff == nullptr || cur == nullptr ||
        log_smooth == nullptr || _m_p_feat_translator == nullptr ||
        dim > _m_p_feat_translator->get_fft_dim()) {
        return;
    }
    const float* const spectrum = _m_p_feat_translator->get_fft_feature();
    if (spectrum == nullptr) {
        return;
    }
    const float* const row[3] = {log_buff, log_buff + dim, log_buff + 2 * dim};
    std::copy_n(spectrum, dim, log_buff + (frame % nsmooth) * dim);
    const auto average = [&](int j) {
        return frame == 0   ? row[0][j]
               : frame == 1 ? (row[0][j] + row[1][j]) * 0.5F
                            : (row[0][j] + row[1][j] + row[2][j]) / 3.0F;
    };
    for (int j = 0; j < dim; ++j) {
        cur[j] = average(j);
    }
    std::copy_n(cur, dim, log_smooth + (frame % nframes) * dim);
}

// ---- The state machine ----------------------------------------------------------------------------

// Moves the status by one frame; true ends the pass.
bool CMFE::transition(int f, int state) {
    if (state == kSil2Sil) {
        return silence_transition(f);
    }
    ++_m_n_speech_frames;
    switch (state) {
        case kSil2Speech:
            _m_n_speech_start = std::min(_m_n_speech_start, f);
            _m_n_onset_frame = f;
            _m_n_prev_last_speech = _m_n_last_speech;
            _m_n_last_speech = f;
            ++_m_n_onset_count;
            _m_n_status = kSpeaking;
            break;
        case kSpeech2Speech:
            _m_n_last_speech = f;
            _m_n_status = f - _m_n_speech_start > _m_n_max_sp_duration ? kTooLong : kSpeaking;
            break;
        case kSpeech2Sil:
            _m_n_last_speech = f;
            _m_n_status = kSpeaking;
            _m_n_max_wait = _m_n_cfg_max_wait;
            break;
        default:
            break;
    }
    return false;
}

bool CMFE::silence_transition(int f) {
    ++_m_n_sil_frames;
    gate_with_energy(f);
    const int silence = f - _m_n_last_speech;
    const bool speech_seen = _m_n_last_speech != 0;
    if (silence > (speech_seen ? _m_n_max_wait : _m_n_head_sil)) {
        _m_n_max_speech_pause = _m_n_cfg_max_speech_pause;
        _m_n_status = kTimedOut;
        return true;
    }
    if (!speech_seen) {
        _m_n_status = kNotStarted;
    } else if (_m_n_last_status == kEnded) {
        _m_n_status = kEnded;
    } else if (silence > _m_n_max_speech_pause) {
        end_of_speech(f);
        return true;
    } else if (silence > _m_n_end_back_frame) {
        _m_n_out_end = margin_end();
        _m_n_status = kPaused;
    } else if (_m_n_onset_count != 0) {
        _m_n_status = kPaused;
    } else {
        _m_n_status = _m_n_last_status;
    }
    return false;
}

// The sum of |sample| of the gathered frame.
int CMFE::frame_energy() const {
    int energy = 0;
    for (int i = 0; i < frame_length(); ++i) {
        energy += std::abs(static_cast<int>(_m_p_frame_samples[i]));
    }
    return energy;
}

// In a long and quiet silence the energy detector takes over from the network.
void CMFE::gate_with_energy(int f) {
    if (_m_n_evad_switch != 0 && f - _m_n_last_speech > _m_n_evad_sil_frames &&
        f - _m_n_evad_on_frame > kGatingPause && _m_n_evad_active != 1 &&
        frame_energy() < _m_n_evad_energy) {
        _m_n_evad_on_frame = f;
        _m_n_evad_active = 1;
    }
}

// Where output of the latest speech ends, margin included.
int CMFE::margin_end() {
    return mfeGetSamplespot(saturate_to_int(1LL * _m_n_last_speech + _m_n_end_back_frame));
}

void CMFE::end_of_speech(int f) {
    if (_m_v_segments.empty()) {
        _m_v_segments.push_back({segment_start(), -1, _m_n_speech_start, -1});
    }
    _VADINFO_& segment = _m_v_segments.back();
    segment.end = std::min(saturate_to_int(1LL * _m_n_last_speech + _m_n_end_back_frame), f);
    segment.last_speech = _m_n_last_speech;

    _m_n_status = kEnded;
    _m_n_max_speech_pause = _m_n_cfg_max_speech_pause;
    _m_n_speech_end_sample = mfeGetSamplespot(f);
    _m_n_out_end = std::min(margin_end(), _m_n_speech_end_sample);
    _m_n_frames_avail = f;  // the next pass scores this frame once more: kept
    _m_n_cur_frame = f + 1;
    _m_n_onset_count = 0;
    if (_m_v_segments.size() != 1) {
        return;
    }
    // Only a first utterance is questioned: a blip is forgotten, a short one gets a longer wait, and
    // one that may be the device's own prompt is compared with the template.
    const int length = _m_n_last_speech - segment.speech_start;
    if (length <= kBlip) {
        _m_n_last_speech = 0;
    } else if (length < _m_n_min_sp_duration) {
        _m_n_max_wait = _m_n_wait_after_minspeech;
    }
    if (length > kMinBleep && kSpecFrames > _m_n_last_speech && _m_n_bleep_detect != 0 &&
        is_bleep()) {
        _m_n_last_speech = 0;
        _m_n_status = kNotStarted;
        std::printf("we have detect didi\nthe _m_n_head_sil is %d\n", _m_n_head_sil);
    }
}

// Whether the speech up to now looks like the prompt in the template.
bool CMFE::is_bleep() {
    if (_m_p_bleep_detector == nullptr) {
        return false;  // bleep detection was off at initialisation
    }
    const float score = _m_p_bleep_detector->bleep_detect_score(
        _m_n_last_speech, kSpecFrames, _m_n_fft_size, kPatternLow, kPatternFrames,
        _m_f_bleep_margin, _m_p_spec_log_smooth, _m_p_spec_binary, _m_p_spec_pattern, _m_p_embd,
        _m_p_embd_test);
    std::printf("the decision score is %f\n", static_cast<double>(score));
    return score > _m_f_bleep_threshold;
}

void CMFE::mfeAdjustPauseThreshold(int length) {
    const int limit = _m_n_max_sp_duration < 2000 ? _m_n_max_sp_duration / 2 : 1000;
    if (length > limit) {
        const float spent =
            static_cast<float>(length) / (static_cast<float>(_m_n_max_sp_duration) + 0.01F);
        _m_n_max_speech_pause =
            truncate_to_int((1.0F - spent) * static_cast<float>(_m_n_cfg_max_speech_pause));
    }
    if (_m_n_debug_log != 0) {
        VAD_DEBUG("_m_n_max_speech_pause = %d\n\n", _m_n_max_speech_pause);
    }
}

// ---- End of input and queries ---------------------------------------------------------------------

int CMFE::UserStop() {
    constexpr int kNearMaximum = 9;  // frames
    _m_n_out_begin = _m_n_out_end;
    if (_m_n_last_status != kNotStarted && _m_n_last_status != kEnded) {
        _m_n_out_end = _m_n_samples_in;
    }
    _m_n_speech_end_sample = _m_n_out_end;
    _m_n_prev_last_speech = mfeGetFrame(_m_n_out_end);
    _m_n_user_stop = 0;
    if (_m_n_last_status == kNotStarted) {
        return kTimedOut;
    }
    if (_m_n_last_status != kSpeaking) {
        return kPaused;
    }
    const long long length = 1LL * _m_n_prev_last_speech - _m_n_onset_frame;
    if (length < _m_n_min_sp_duration) {
        return kTooShort;
    }
    return length >= 1LL * _m_n_max_sp_duration - kNearMaximum ? kTooLong : kPaused;
}

int CMFE::mfeReturnStatus(int /*clipped*/) {
    return _m_n_status >= kNotStarted && _m_n_status <= kEnded ? _m_n_status
                                                               : static_cast<int>(kNotStarted);
}

int CMFE::mfeIsSil(int from, int to) {
    const int ring_frames = _m_p_frame_state != nullptr ? _m_n_ring_frames : _m_n_buf_frames;
    if (to > _m_n_cur_frame || 1LL * _m_n_cur_frame - ring_frames >= from) {
        return kBadParameter;
    }
    if (to > from && (from < 0 || _m_p_frame_state == nullptr)) {
        return kBadParameter;
    }
    for (int f = from; f < to; ++f) {
        if (_m_p_frame_state[ring::index(f, _m_n_ring_frames)] != kSil2Sil) {
            return kNotSilence;
        }
    }
    return 0;
}

}  // namespace tz_dnnvad
