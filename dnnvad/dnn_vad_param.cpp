// The configuration file and the numbered parameters.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "dnnvad/constants.h"
#include "dnnvad/dnn_vad.h"
#include "dnnvad/saturate.h"
#include "dnnvad/vad_log.h"

namespace tz_dnnvad {

namespace {

// ---- Configuration file ---------------------------------------------------------------------------

constexpr int kLineBytes = 1024;
constexpr int kMaxLines = 1 << 16;  // what has more is no configuration, and may have no end
constexpr std::size_t kNameBytes = sizeof(cfg_vad_t::dnn_file);

struct FloatKey {
    const char* name;
    float cfg_vad_t::*field;
};
constexpr FloatKey kFloatKeys[] = {
    {"PARAM_DNN_SPEECH_threshold", &cfg_vad_t::speech_threshold},
    {"PARAM_DNN_SIL_threshold", &cfg_vad_t::sil_threshold},
};

struct IntKey {
    const char* name;
    int cfg_vad_t::*field;
};
constexpr IntKey kIntKeys[] = {
    {"PARAM_MAX_WAIT_DURATION", &cfg_vad_t::max_wait},
    {"PARAM_MAX_SP_DURATION", &cfg_vad_t::max_sp_duration},
    {"PARAM_MIN_SP_DURATION", &cfg_vad_t::min_sp_duration},
    {"PARAM_MAX_SP_PAUSE", &cfg_vad_t::max_sp_pause},
    {"PARAM_HEAD_SIL_DURATION", &cfg_vad_t::head_sil_duration},
    {"PARAM_START_BACK_FRAME", &cfg_vad_t::start_back_frame},
    {"PARAM_END_BACK_FRAME", &cfg_vad_t::end_back_frame},
    {"PARAM_DEBUG_LOG", &cfg_vad_t::debug_log},
    {"PARAM_SAMPLE_RATE", &cfg_vad_t::sample_rate},
    {"PARAM_SPEECH_OFFSET", &cfg_vad_t::speech_offset},
    {"PARAM_DETECT_START", &cfg_vad_t::detect_start},
    {"PARAM_WAIT_AFTER_MINSPEECH", &cfg_vad_t::wait_after_minspeech},
    {"PARAM_EVAD_DNNVAD_SWITCH", &cfg_vad_t::evad_dnnvad_switch},
    {"PARAM_BLEEP_DETECT", &cfg_vad_t::bleep_detect},
};

struct NameKey {
    const char* name;
    char (cfg_vad_t::*field)[kNameBytes];
};
constexpr NameKey kNameKeys[] = {
    {"PARAM_CMVN_FILE", &cfg_vad_t::cmvn_file},
    {"PARAM_DNN_FILE", &cfg_vad_t::dnn_file},
};

// The text behind "name:" at the start of the line, or null when the line has another key.
const char* value_of(const char* line, const char* name) {
    const std::size_t length = std::strlen(name);
    return std::strncmp(line, name, length) == 0 && line[length] == ':' ? line + length + 1
                                                                        : nullptr;
}

void read_setting(const char* line, cfg_vad_t& cfg) {
    for (const FloatKey& key : kFloatKeys) {
        if (const char* value = value_of(line, key.name)) {
            std::sscanf(value, "%f", &(cfg.*key.field));
            return;
        }
    }
    for (const IntKey& key : kIntKeys) {
        if (const char* value = value_of(line, key.name)) {
            char* end = nullptr;
            const long number = std::strtol(value, &end, 10);
            if (end != value) {
                cfg.*key.field = saturate_to_int(number);
            }
            return;
        }
    }
    for (const NameKey& key : kNameKeys) {
        if (const char* value = value_of(line, key.name)) {
            char token[kLineBytes];
            if (std::sscanf(value, "%1023s", token) == 1) {
                // A name that fills the field has no final zero: kept, the field is a fixed-width one.
                std::memset(cfg.*key.field, 0, kNameBytes);
                std::memcpy(cfg.*key.field, token, std::min(std::strlen(token), kNameBytes));
            }
            return;
        }
    }
}

}  // namespace

int readcfg(const char* path, cfg_vad_t* cfg) {
    const std::unique_ptr<FILE, int (*)(FILE*)> file(
        path != nullptr ? std::fopen(path, "rb") : nullptr, std::fclose);
    if (file == nullptr || cfg == nullptr) {
        VAD_ERROR("can't open %s\n\n", path != nullptr ? path : "(null)");
        return -1;
    }
    cfg_vad_t read{};
    char line[kLineBytes];
    int lines = 0;
    for (; lines <= kMaxLines && std::fgets(line, sizeof line, file.get()) != nullptr; ++lines) {
        if (line[0] != '#') {
            read_setting(line, read);
        }
    }
    if (lines > kMaxLines || std::ferror(file.get()) != 0) {
        VAD_ERROR("can't read %s\n\n", path);
        return -1;
    }
    *cfg = read;
    return 0;
}

// ---- Parameters -----------------------------------------------------------------------------------

namespace {

enum Parameter {
    kMaxWait = 1,
    kMaxSpeech = 2,
    kMaxPause = 3,
    kMinSpeech = 4,
    kHeadSilence = 5,
    kStartBack = 6,
    kEndBack = 7,
    kDebugLog = 8,
    kBufferLength = 9,
    kDetectStart = 10,
    kVadEnable = 11,
    kSpeechOnly = 12,
    kSampleRate = 13,
    kWaitAfterMinSpeech = 14,
    kSpeechThreshold = 23,
    kSilThreshold = 24,
    kEvadSwitch = 25,
    kBleepDetect = 26,
};

constexpr int kMinBufferFrames = 100;

// Parameters that are plain integer fields.
struct IntParameter {
    int id;
    int CMFE::*field;
};
constexpr IntParameter kIntParameters[] = {
    {kMaxSpeech, &CMFE::_m_n_max_sp_duration}, {kMinSpeech, &CMFE::_m_n_min_sp_duration},
    {kHeadSilence, &CMFE::_m_n_head_sil},      {kStartBack, &CMFE::_m_n_start_back_frame},
    {kEndBack, &CMFE::_m_n_end_back_frame},    {kDetectStart, &CMFE::_m_n_detect_start},
    {kEvadSwitch, &CMFE::_m_n_evad_switch},    {kBleepDetect, &CMFE::_m_n_bleep_detect},
};

int CMFE::*int_parameter(int id) {
    for (const IntParameter& parameter : kIntParameters) {
        if (parameter.id == id) {
            return parameter.field;
        }
    }
    return nullptr;
}

}  // namespace

int CMFE::mfeSetParam(int id, float value) {
    const int v = truncate_to_int(value);
    if (int CMFE::*field = int_parameter(id)) {
        this->*field = v;
        return 0;
    }
    switch (id) {
        // The two rules between wait and pause are lopsided: kept, hosts depend on the values. The
        // wait lowers the configured pause, the pause raises the current wait.
        case kMaxWait:
            _m_n_max_wait = v;
            if (v <= _m_n_cfg_max_speech_pause) {
                _m_n_cfg_max_speech_pause = saturate_to_int(v - 1LL);
            }
            _m_n_cfg_max_wait = v;
            return 0;
        case kMaxPause:
            _m_n_cfg_max_speech_pause = v;
            if (v >= _m_n_max_wait) {
                _m_n_max_wait = saturate_to_int(v + 1LL);
            }
            _m_n_max_speech_pause = v;
            return 0;
        case kDebugLog:
            _m_n_debug_log = std::max(v, 0);
            return 0;
        case kBufferLength:
            // Does not refresh the chunk limit: only the sample rate does, kept.
            _m_n_buf_frames = std::max(v / _m_n_frame_shift + 1, kMinBufferFrames);
            return 0;
        case kVadEnable:
            _m_b_vad_enable = v != 0;
            return 0;
        case kSpeechOnly:
            _m_b_speech_only = v != 0;
            return 0;
        case kSampleRate:
            return set_sample_rate(v);
        case kWaitAfterMinSpeech:
            _m_n_wait_after_minspeech = std::max(v, _m_n_cfg_max_wait);
            return 0;
        case kSpeechThreshold:
            _m_f_speech_threshold = value;
            return 0;
        case kSilThreshold:
            _m_f_sil_threshold = value;
            return 0;
        default:
            return kBadParameter;
    }
}

int CMFE::set_sample_rate(int rate) {
    if (rate != 8000 && rate != 16000) {
        VAD_ERROR("SampleRate = %d, should be 8000 or 16000\n", rate);
        return kBadParameter;
    }
    _m_n_frame_shift = rate / 100;
    _m_n_sample_rate = rate;
    _m_n_max_data_len = saturate_to_int(1LL * _m_n_frame_shift * _m_n_buf_frames);
    _m_p_data_feed = rate == 8000 ? _m_p_data : _m_p_data8k;
    _m_p_data_in = _m_p_data;
    return 0;
}

float CMFE::mfeGetParam(int id) {
    if (int CMFE::*field = int_parameter(id)) {
        return static_cast<float>(this->*field);
    }
    switch (id) {
        case kMaxWait:
            return static_cast<float>(_m_n_cfg_max_wait);
        case kMaxPause:
            return static_cast<float>(_m_n_cfg_max_speech_pause);
        case kDebugLog:
            return static_cast<float>(_m_n_debug_log);
        case kBufferLength:
            return static_cast<float>(2U * static_cast<unsigned>(_m_n_buf_frames) *
                                      static_cast<unsigned>(_m_n_frame_shift));
        case kSpeechOnly:
            return _m_b_speech_only ? 1.0F : 0.0F;
        case kSampleRate:
            return static_cast<float>(_m_n_sample_rate);
        case kSpeechThreshold:
            return _m_f_speech_threshold;
        case kSilThreshold:
            return _m_f_sil_threshold;
        default:
            return static_cast<float>(kBadParameter);
    }
}

void CMFE::mfeSetLogLevel(int level) { _m_n_debug_log = level != 0 ? 7 : 0; }

long CMFE::mfeGetHistVolume() { return 0; }

int CMFE::mfeSetHistVolume(long /*volume*/) { return 0; }

}  // namespace tz_dnnvad
