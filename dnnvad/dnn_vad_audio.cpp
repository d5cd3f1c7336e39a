// Audio intake, speech output, and positions in frames and samples.
#include <algorithm>
#include <limits>

#include "dnnvad/constants.h"
#include "dnnvad/dnn_vad.h"
#include "dnnvad/ring.h"
#include "dnnvad/saturate.h"
#include "dnnvad/vad_log.h"

namespace tz_dnnvad {

namespace {
// Input at 16 kHz for an 8 kHz model counts in blocks of this many input samples.
constexpr int kHalvingBlock = 80;

bool is_between_utterances(int status) { return status == kNotStarted || status == kEnded; }
}  // namespace

int CMFE::mfeSendData(const short* samples, int count) {
    if (samples == nullptr && count == 0) {
        _m_n_user_stop = 1;
        if (_m_b_vad_enable) {
            _m_n_last_status = _m_n_status;
            _m_n_status = kPaused;
        } else {
            _m_b_data_end = true;
        }
        return 0;
    }
    if (count < 0) {
        return kBadParameter;
    }
    if (count > _m_n_max_data_len / 2) {
        VAD_ERROR("iLen*2[%d] > MaxDataLenOneTime[%d]\n", saturate_to_int(2LL * count),
                  _m_n_max_data_len);
        return kChunkTooLong;
    }
    if (count > 0 && (samples == nullptr || !_m_b_ready)) {
        VAD_ERROR("NULL POINTER: samples=%p,ring=%p\n", static_cast<const void*>(samples),
                  static_cast<const void*>(_m_b_ready ? _m_p_data : nullptr));
        return kNullPointer;
    }
    const long long position = 1LL * _m_n_samples_in + (_m_b_vad_enable ? _m_n_decim_rest : 0);
    if (position + count > std::numeric_limits<int>::max()) {
        VAD_ERROR("stream position %lld + %d samples is beyond 32 bits, reset the session\n",
                  position, count);
        return kChunkTooLong;
    }
    const int end = static_cast<int>(position) + count;
    ring::write(samples, count, _m_p_data, _m_n_ring_samples, position);
    _m_n_last_status = _m_n_status;
    if (!_m_b_vad_enable) {
        _m_n_samples_in = _m_n_out_end = end;
        _m_n_status = kSpeaking;
    } else if (_m_b_16k_model) {
        _m_n_samples_in = _m_n_samples_16k = end;
    } else if (_m_n_sample_rate == 8000) {
        _m_n_samples_in = _m_n_samples_8k = end;
    } else if (_m_b_ready) {
        halve_new_samples(end);
    }
    return 0;
}

// Drops every second sample of the whole blocks that end before `end` into the 8 kHz ring.
//
// The loop writes as many 8 kHz samples as there are new input samples, twice what counts: the upper
// half lies beyond the counted samples and the next call overwrites it. Kept: what it overwrites of
// the ring's oldest part is part of the behaviour.
void CMFE::halve_new_samples(int end) {
    const int rest = end % kHalvingBlock;
    const int old = _m_n_samples_in;
    const int fresh = end - rest - old;
    _m_n_samples_in = end - rest;
    _m_n_decim_rest = rest;
    int from = ring::index(old, _m_n_ring_samples);
    int to = ring::index(old / 2, _m_n_ring_samples8k);
    for (int k = 0; k < fresh; ++k) {
        _m_p_data8k[to] = _m_p_data[from];
        from = ring::index(from + 2LL, _m_n_ring_samples);
        to = ring::index(to + 1LL, _m_n_ring_samples8k);
    }
    _m_n_samples_8k = _m_n_samples_in / 2;
}

int CMFE::mfeGetCallbackData(char* pDataOut, int* iLen, int iMaxLen) {
    if (pDataOut == nullptr || iLen == nullptr) {
        VAD_ERROR("NULL POINTER: pDataOut=%p,iLen=%p\n", static_cast<void*>(pDataOut),
                  static_cast<void*>(iLen));
        return kNullPointer;
    }
    const bool only_speech = _m_b_vad_enable && _m_b_speech_only;
    if (only_speech) {
        const int status = _m_n_status;
        const bool was_between = is_between_utterances(_m_n_last_status);
        const bool begins = status == kSpeaking && was_between;
        const bool nothing = status == kNotStarted || status == kTimedOut ||
                             (status == kEnded && _m_n_last_status == kEnded) ||
                             (status == kPaused && was_between) ||
                             (begins && _m_v_segments.empty());
        if (nothing) {
            *iLen = 0;
            _m_n_out_begin = _m_n_out_end;
            return 0;
        }
        if (begins) {
            _m_n_out_end = _m_n_speech_end_sample;
            _m_n_out_begin = saturate_to_int(1LL * _m_n_frame_shift * _m_v_segments.back().start);
        }
    } else {
        _m_n_out_end = _m_n_samples_in;
    }
    *iLen = hand_out(pDataOut, iMaxLen);
    if (_m_b_speech_only && _m_n_status == kEnded) {
        _m_n_out_end = _m_n_speech_end_sample;
    }
    _m_n_out_begin = _m_n_out_end;
    return 0;
}

// Copies the output range, or its newest part that fits into `capacity` bytes, and returns the bytes
// written. A range that ends before it begins (it arises after an end of speech) is empty.
int CMFE::hand_out(char* out, int capacity) {
    long long count = 1LL * _m_n_out_end - _m_n_out_begin;
    if (2 * count > capacity) {
        VAD_ERROR("iLen[%d] > iMaxLen[%d]\n", saturate_to_int(2 * count), capacity);
        count = capacity / 2;
        _m_n_out_begin = saturate_to_int(_m_n_out_end - count);
    }
    if (count <= 0 || _m_n_ring_samples == 0) {
        return 0;
    }
    const int samples = static_cast<int>(count);
    // The host's buffer need not be aligned for samples.
    ring::for_each_run(_m_n_out_begin, samples, _m_n_ring_samples,
                       [&](int offset, int at, int run) {
                           const char* const from = reinterpret_cast<const char*>(_m_p_data + at);
                           std::copy_n(from, 2 * static_cast<std::size_t>(run),
                                       out + 2 * static_cast<std::ptrdiff_t>(offset));
                       });
    return 2 * samples;
}

int CMFE::mfeGetFrame(int sample) {
    const auto frame = [](long long position, int length, int shift) {
        return static_cast<int>((position - length) / shift + 1);
    };
    if (_m_b_16k_model) {
        return frame(sample, _m_n_frame_len_16k, _m_n_frame_shift_16k);
    }
    switch (_m_n_sample_rate) {
        case 8000:
            return frame(sample, _m_n_frame_len_8k, _m_n_frame_shift_8k);
        case 16000:
            return frame(sample / 2, _m_n_frame_len_8k, _m_n_frame_shift_8k);
        default:
            return 0;
    }
}

int CMFE::mfeGetSamplespot(int frame) {
    const long long f = frame;
    if (_m_b_16k_model) {
        return saturate_to_int(_m_n_frame_len_16k + _m_n_frame_shift_16k * f);
    }
    switch (_m_n_sample_rate) {
        case 8000:
            return saturate_to_int(_m_n_frame_len_8k + _m_n_frame_shift_8k * f);
        case 16000:
            return saturate_to_int((_m_n_frame_len_8k + _m_n_frame_shift_8k * f) * 2);
        default:
            return 0;
    }
}

}  // namespace tz_dnnvad
