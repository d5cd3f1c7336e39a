#include "utterances.h"

#include <algorithm>
#include <fstream>
#include <set>
#include <string>

using tz_dnnvad::_VADINFO_;
using tz_dnnvad::cfg_vad_t;
using tz_dnnvad::CMFE;

namespace {

constexpr double kFrameSeconds = 0.01;
constexpr int kNotStarted = 0;
constexpr int kTimedOut = 3;
constexpr int kEnded = 6;
constexpr int kSampleRateId = 13;

// Which configuration key carries which parameter.
struct IntSetting {
    const char* key;
    int id;
    int cfg_vad_t::*value;
};
constexpr IntSetting kIntSettings[] = {
    {"PARAM_SAMPLE_RATE", kSampleRateId, &cfg_vad_t::sample_rate},
    {"PARAM_MAX_WAIT_DURATION", 1, &cfg_vad_t::max_wait},
    {"PARAM_MAX_SP_DURATION", 2, &cfg_vad_t::max_sp_duration},
    {"PARAM_MAX_SP_PAUSE", 3, &cfg_vad_t::max_sp_pause},
    {"PARAM_MIN_SP_DURATION", 4, &cfg_vad_t::min_sp_duration},
    {"PARAM_HEAD_SIL_DURATION", 5, &cfg_vad_t::head_sil_duration},
    {"PARAM_START_BACK_FRAME", 6, &cfg_vad_t::start_back_frame},
    {"PARAM_END_BACK_FRAME", 7, &cfg_vad_t::end_back_frame},
    {"PARAM_DEBUG_LOG", 8, &cfg_vad_t::debug_log},
    {"PARAM_DETECT_START", 10, &cfg_vad_t::detect_start},
    {"PARAM_WAIT_AFTER_MINSPEECH", 14, &cfg_vad_t::wait_after_minspeech},
    {"PARAM_EVAD_DNNVAD_SWITCH", 25, &cfg_vad_t::evad_dnnvad_switch},
    {"PARAM_BLEEP_DETECT", 26, &cfg_vad_t::bleep_detect},
};

struct FloatSetting {
    const char* key;
    int id;
    float cfg_vad_t::*value;
};
constexpr FloatSetting kFloatSettings[] = {
    {"PARAM_DNN_SPEECH_threshold", 23, &cfg_vad_t::speech_threshold},
    {"PARAM_DNN_SIL_threshold", 24, &cfg_vad_t::sil_threshold},
};

// The record cannot tell a value of zero from a key that is not there; the file can.
std::set<std::string> keys_of(const char* path) {
    std::set<std::string> keys;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        keys.insert(line.substr(0, line.find(':')));
    }
    return keys;
}

}  // namespace

bool apply_config(const char* path, CMFE& session) {
    cfg_vad_t config;
    if (tz_dnnvad::readcfg(path, &config) != 0) {
        return false;
    }
    const std::set<std::string> keys = keys_of(path);
    for (const IntSetting& setting : kIntSettings) {
        if (keys.count(setting.key) != 0) {
            session.mfeSetParam(setting.id, static_cast<float>(config.*setting.value));
        }
    }
    for (const FloatSetting& setting : kFloatSettings) {
        if (keys.count(setting.key) != 0) {
            session.mfeSetParam(setting.id, config.*setting.value);
        }
    }
    return true;
}

namespace {

// Follows one session along a recording and reports each record of its segment list once.
class Listener {
public:
    Listener(CMFE& session, const std::function<void(const Utterance&)>& found)
        : session_(session), found_(found), rate_(session.mfeGetParam(kSampleRateId)) {}

    void push(const short* samples, int count) {
        session_.mfeSendData(samples, count);
        pushed_ += count;
        switch (session_.mfeDNNDetect()) {
            case kNotStarted:
                skip_forgotten();
                break;
            case kEnded:
                skip_forgotten();
                report("pause");
                break;
            case kTimedOut:
                report("time-out");
                session_.mfeReset();
                reported_ = 0;
                origin_ = pushed_ / rate_;
                break;
            default:
                break;
        }
    }

    void finish() {
        session_.mfeSendData(nullptr, 0);
        session_.mfeDNNDetect();
        report("end of input");
    }

private:
    // A blip, or the device's own prompt: the session has closed the record and waits as if there had
    // been no speech.
    void skip_forgotten() {
        if (session_._m_n_last_speech == 0) {
            reported_ = session_._m_v_segments.size();
        }
    }

    void report(const char* reason) {
        const auto& segments = session_._m_v_segments;
        for (; reported_ < segments.size(); ++reported_) {
            const _VADINFO_& segment = segments[reported_];
            found_({time(segment.start), time(segment.end), time(segment.speech_start),
                    time(segment.last_speech), reason});
        }
    }

    double time(int frame) const { return origin_ + frame * kFrameSeconds; }

    CMFE& session_;
    const std::function<void(const Utterance&)>& found_;
    double rate_;               // Hz
    double pushed_ = 0;         // samples since the start of the recording
    double origin_ = 0;         // where the session's frame 0 lies, seconds
    std::size_t reported_ = 0;  // records of the segment list already dealt with
};

}  // namespace

void find_utterances(CMFE& session, const std::vector<short>& pcm,
                     const std::function<void(const Utterance&)>& found) {
    const int chunk = static_cast<int>(session.mfeGetParam(kSampleRateId)) / 100;
    Listener listener(session, found);
    for (std::size_t position = 0; position < pcm.size();
         position += static_cast<std::size_t>(chunk)) {
        const std::size_t left = pcm.size() - position;
        listener.push(pcm.data() + position, static_cast<int>(std::min<std::size_t>(
                                                 left, static_cast<std::size_t>(chunk))));
    }
    listener.finish();
}
