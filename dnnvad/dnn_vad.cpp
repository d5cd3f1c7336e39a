// Session lifecycle: construction, initialisation, reset, exit.
#include "dnnvad/dnn_vad.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <new>

#include "dnnvad/aligned.h"
#include "dnnvad/constants.h"
#include "dnnvad/saturate.h"
#include "dnnvad/vad_log.h"

namespace tz_dnnvad {

const char g_AudioState[6][16] = {"SPEECH2SPEECH", "SPEECH2SIL", "SIL2SIL",
                                  "SIL2SPEECH",    "NOTBEGIN",   "INVALID"};

namespace {

// What a session starts from before a model chooses the layout.
constexpr int kDefaultChannels = 26;
constexpr int kDefaultLowHz = 40;
constexpr int kDefaultHighHz = 3800;
// A model with this many features per frame is a 16 kHz model.
constexpr int kWideBandChannels = 40;

constexpr int kSmoothWindowFrames = 20;
constexpr int kEnergyVadMaxFrame = 1024;

// Allocates `count` zeroed elements; a failure prints `name` and `printed_bytes`.
template <typename T>
int allocate(T*& buffer, long long count, const char* name, long long printed_bytes) {
    buffer =
        static_cast<T*>(std::calloc(static_cast<std::size_t>(std::max(count, 1LL)), sizeof(T)));
    if (buffer == nullptr) {
        VAD_ERROR("%s malloc[%lld] Failed\n", name, printed_bytes);
        return kNoMemory;
    }
    return 0;
}

template <typename T>
int allocate(T*& buffer, long long count, const char* name) {
    return allocate(buffer, count, name, count * static_cast<long long>(sizeof(T)));
}

template <typename T>
void release(T*& block) {
    std::free(block);
    block = nullptr;
}

template <typename T>
void destroy(T*& object) {
    delete object;
    object = nullptr;
}

}  // namespace

CMFE::CMFE() { mfeReset(); }

CMFE::~CMFE() { mfeExit(); }

int CMFE::mfeInit(const char* dnnfile) {
    const int error = mfeInit_load_model(dnnfile, nullptr);
    if (error != 0) {
        VAD_ERROR("Fatal Error: MFE Init fail! ErrorNo: %d\n", error);
        return kInitFailed;
    }
    return 0;
}

int CMFE::mfeInit_load_model(const char* dnnfile, const char* bleepfile) {
    _m_b_started = true;
    _m_b_data_end = false;
    if (dnnfile == nullptr || *dnnfile == '\0') {
        VAD_ERROR("NULL POINTER: dnnfile=%s\n", dnnfile == nullptr ? "(null)" : dnnfile);
        return kNullPointer;
    }
    mfeExit();
    if (_m_b_16k_model) {
        _m_b_16k_model = false;
        _m_n_fbank_dim = kDefaultChannels;
        _m_n_fbank_low = kDefaultLowHz;
        _m_n_fbank_high = kDefaultHighHz;
    }
    try {
        int error = 0;
        if ((error = allocate_rings()) != 0 || (error = load_network(dnnfile)) != 0 ||
            (error = resize_input_ring()) != 0 || (error = allocate_frame_buffers()) != 0 ||
            (error = allocate_bleep_buffers(bleepfile)) != 0 ||
            (error = build_feature_chain()) != 0 || (error = create_energy_vad()) != 0) {
            return error;
        }
        _m_b_ready = true;
        mfeReset();
    } catch (const std::bad_alloc&) {  // from the small objects
        _m_b_ready = false;
        destroy(_m_p_evad_instance);  // half made, its reset would allocate
        VAD_ERROR("malloc Failed\n");
        return kNoMemory;
    }
    return 0;
}

int CMFE::allocate_rings() {
    const long long frames = _m_n_buf_frames;
    // The size printed for the input ring is that of 16 kHz at any rate: kept.
    const long long printed = frames * _m_n_frame_shift_16k * 2;
    // An earlier model may have raised the shift under a buffer length set for the lower one.
    if (frames * _m_n_frame_shift > std::numeric_limits<int>::max()) {
        VAD_ERROR("_m_p_data malloc[%lld] Failed\n", printed);
        return kNoMemory;
    }
    int error = 0;
    if ((error = allocate(_m_p_frame_state, frames, "_m_p_frame_state")) != 0 ||
        (error = allocate(_m_p_data, frames * _m_n_frame_shift, "_m_p_data", printed)) != 0 ||
        (error = allocate(_m_p_data8k, frames * _m_n_frame_shift_8k, "_m_p_data8k")) != 0) {
        return error;
    }
    _m_n_ring_frames = _m_n_buf_frames;
    _m_n_ring_samples = _m_n_buf_frames * _m_n_frame_shift;
    _m_n_ring_samples8k = _m_n_buf_frames * _m_n_frame_shift_8k;
    _m_p_data_feed = _m_n_sample_rate == 8000 ? _m_p_data : _m_p_data8k;
    _m_p_data_in = _m_p_data;
    return 0;
}

// The smoother's settings, the smoother, and the network, whose header may switch the layout.
int CMFE::load_network(const char* dnnfile) {
    _m_p_vad_configer = new VadConfiger;
    if (!_m_p_vad_configer->load()) {
        VAD_ERROR("_m_p_vad_configer Init Failed\n");
        return kComponentFailed;
    }
    _m_p_vad_configer->_smooth_window = kSmoothWindowFrames;
    _m_p_vad_configer->_speech_threshold = _m_f_speech_threshold;
    _m_p_vad_configer->_sil_threshold = _m_f_sil_threshold;
    _m_p_windows_detector = new WindowsDetector(_m_p_vad_configer);

    _m_p_dnn = new DNN(_m_p_vad_configer, dnnfile);
    if (_m_p_dnn->_feat_dim == kWideBandChannels) {
        _m_b_16k_model = true;
        _m_n_fbank_dim = kWideBandChannels;
        _m_n_fbank_low = _m_p_dnn->_low_freq;
        _m_n_fbank_high = _m_p_dnn->_high_freq;
        // The model's rate wins over the parameter, whatever it is. The chunk limit stays: only the
        // parameter sets it, kept.
        _m_n_sample_rate = _m_p_dnn->_sample_rate;
        if (_m_n_sample_rate == 8000 || _m_n_sample_rate == 16000) {
            _m_n_frame_shift = _m_n_sample_rate / 100;
        }
    }
    if (_m_p_dnn->getState() == kFailed) {
        VAD_ERROR("DNN Init Failed\n");
        return kComponentFailed;
    }
    if (_m_p_dnn->_feat_dim < _m_n_fbank_dim) {
        VAD_ERROR("model feature dim = %d, should be at least %d\n", _m_p_dnn->_feat_dim,
                  _m_n_fbank_dim);
        return kComponentFailed;
    }
    return 0;
}

// A model that chose the layout may need a longer input ring than the parameters asked for: the ring
// holds what arrives per frame and what the driver reads per frame, whichever is more.
int CMFE::resize_input_ring() {
    const long long samples = 1LL * _m_n_buf_frames * std::max(_m_n_frame_shift, model_shift());
    if (samples == _m_n_ring_samples) {
        return 0;
    }
    const bool feeds_model = _m_p_data_feed == _m_p_data;
    release(_m_p_data);
    _m_p_data_feed = feeds_model ? nullptr : _m_p_data_feed;
    _m_p_data_in = nullptr;
    _m_n_ring_samples = 0;
    const long long bytes = samples * static_cast<long long>(sizeof(short));
    if (samples > std::numeric_limits<int>::max()) {
        VAD_ERROR("_m_p_data malloc[%lld] Failed\n", bytes);
        return kNoMemory;
    }
    const int error = allocate(_m_p_data, samples, "_m_p_data", bytes);
    if (error != 0) {
        return error;
    }
    _m_n_ring_samples = static_cast<int>(samples);
    _m_p_data_feed = feeds_model ? _m_p_data : _m_p_data_feed;
    _m_p_data_in = _m_p_data;
    return 0;
}

int CMFE::allocate_frame_buffers() {
    _m_n_nn_dim = _m_p_dnn->_layer_size[_m_p_dnn->_layer_number - 1];
    _m_n_feat_dim = _m_p_dnn->_layer_size[0];
    int error = 0;
    if ((error = allocate(_m_p_dst_nn, _m_n_nn_dim, "_m_p_dst_nn")) != 0 ||
        (error = allocate(_m_p_frame_samples, frame_length(), "_m_p_frame_samples")) != 0) {
        return error;
    }
    _m_p_dst_feature = _m_n_feat_dim < 0
                           ? nullptr
                           : zeroed_aligned_floats(static_cast<std::size_t>(_m_n_feat_dim));
    if (_m_p_dst_feature == nullptr) {
        VAD_ERROR("_m_p_dst_feature malloc[%lld] Failed\n", 4LL * _m_n_feat_dim);
        return kNoMemory;
    }
    return 0;
}

int CMFE::allocate_bleep_buffers(const char* bleepfile) {
    _m_n_fft_size = _m_b_16k_model ? 256 : 128;
    if (_m_n_bleep_detect == 0) {
        return 0;
    }
    const long long bins = _m_n_fft_size;
    const long long columns = bins - kPatternLow;
    int error = 0;
    if ((error = allocate(_m_p_spec_log_buff, kSpecSmooth * bins, "_m_p_spec_log_buff")) != 0 ||
        (error = allocate(_m_p_spec_log_smooth_cur_frame, bins,
                          "_m_p_spec_log_smooth_cur_frame")) != 0 ||
        (error = allocate(_m_p_spec_log_smooth, kSpecFrames * bins, "_m_p_spec_log_smooth")) != 0 ||
        (error = allocate(_m_p_spec_binary, kSpecFrames * bins, "_m_p_spec_binary")) != 0 ||
        (error = allocate(_m_p_spec_pattern, kPatternFrames * bins, "_m_p_spec_pattern")) != 0 ||
        (error = allocate(_m_p_embd, columns + 1, "_m_p_embd")) != 0 ||
        (error = allocate(_m_p_embd_test, columns, "_m_p_embd_test")) != 0) {
        return error;
    }
    _m_p_bleep_detector = new BleepDetector;
    if (_m_p_bleep_detector->load_dector_model(bleepfile, kPatternFrames, _m_n_fft_size,
                                               _m_p_spec_pattern, kPatternLow, _m_p_embd) == -1) {
        _m_n_bleep_detect = 0;
    }
    return 0;
}

int CMFE::build_feature_chain() {
    _m_p_pcm2featureft = new (std::nothrow)
        PCM2FeatureTranslator(frame_length(), _m_n_fbank_dim, _m_n_fbank_low, _m_n_fbank_high,
                              _m_n_fbank_dim, _m_n_fft_size, !_m_b_16k_model);
    _m_p_cmvn_mean = _m_p_dnn->_mean_vec;
    _m_p_cmvn_var = _m_p_dnn->_rev_var_vec;
    _m_p_cmvnft = new (std::nothrow)
        CMVNFeatureTranslator(_m_n_fbank_dim, _m_n_fbank_dim, _m_p_cmvn_mean, _m_p_cmvn_var);
    _m_p_concatft = new (std::nothrow) ConcatFeatureTranslator(_m_n_fbank_dim, _m_n_feat_dim);
    if (_m_p_pcm2featureft == nullptr || _m_p_cmvnft == nullptr) {
        VAD_ERROR("_m_p_pcm2featureft[%p] _m_p_cmvnft[%p] _m_p_concatft[%p] Init Failed\n",
                  static_cast<void*>(_m_p_pcm2featureft), static_cast<void*>(_m_p_cmvnft),
                  static_cast<void*>(_m_p_concatft));
        return kComponentFailed;
    }
    _m_p_pcm2featureft->next = _m_p_cmvnft;
    _m_p_cmvnft->next = _m_p_concatft;
    if (_m_p_concatft != nullptr) {
        _m_p_concatft->next = nullptr;
    }
    _m_p_feat_translator = _m_p_pcm2featureft;
    if (_m_p_feat_translator->getState() == kFailed) {
        VAD_ERROR("_m_p_feat_translator Init Failed\n");
        return kComponentFailed;
    }
    return 0;
}

int CMFE::create_energy_vad() {
    _m_p_evad_instance = new (std::nothrow) tz_evad::Vad;
    if (_m_p_evad_instance == nullptr) {
        VAD_ERROR("_m_p_evad_instance malloc Failed\n");
        return kNoMemory;
    }
    if (_m_p_evad_instance->init(kEnergyVadMaxFrame) != 0) {
        VAD_ERROR("_m_p_evad_instance Init Failed\n");
        return kComponentFailed;
    }
    // The size printed is twice the bytes, and both buffers share one name: kept.
    const char* const name = "_m_p_short_frame_in";
    int error = 0;
    if ((error = allocate(_m_p_short_frame_in, _m_n_frame_shift_8k, name,
                          4LL * _m_n_frame_shift_8k)) != 0 ||
        (error = allocate(_m_p_short_frame_in16k, _m_n_frame_shift_16k, name,
                          4LL * _m_n_frame_shift_16k)) != 0) {
        return error;
    }
    return 0;
}

// Keeps `_m_n_evad_active`, the rings' contents and the parameters: hosts depend on it.
int CMFE::mfeReset() {
    _m_b_started = true;
    _m_v_segments.clear();
    _m_n_max_speech_pause = _m_n_cfg_max_speech_pause;
    _m_n_max_wait = _m_n_cfg_max_wait;
    _m_b_data_end = false;
    for (int* field :
         {&_m_n_speech_start,  &_m_n_status,      &_m_n_last_status,       &_m_n_samples_in,
          &_m_n_samples_8k,    &_m_n_samples_16k, &_m_n_speech_end_sample, &_m_n_decim_rest,
          &_m_n_out_begin,     &_m_n_out_end,     &_m_n_pass_first_frame,  &_m_n_frames_avail,
          &_m_n_cur_frame,     &_m_n_onset_frame, &_m_n_prev_last_speech,  &_m_n_user_stop,
          &_m_n_evad_on_frame, &_m_n_last_speech, &_m_n_onset_count,       &_m_n_speech_frames,
          &_m_n_sil_frames}) {
        *field = 0;
    }
    if (_m_p_feat_translator != nullptr) {
        _m_p_feat_translator->reset();
    }
    if (_m_p_windows_detector != nullptr) {
        _m_p_windows_detector->reset();
    }
    if (_m_p_dnn != nullptr) {
        _m_p_dnn->reset();
    }
    std::fill(std::begin(ds_x_hist), std::end(ds_x_hist), 0.0F);
    std::fill(std::begin(ds_y_hist), std::end(ds_y_hist), 0.0F);
    if (_m_p_evad_instance != nullptr) {
        _m_p_evad_instance->free();
    }
    return 0;
}

int CMFE::mfeExit() {
    _m_b_ready = false;
    _m_n_ring_frames = _m_n_ring_samples = _m_n_ring_samples8k = 0;
    release(_m_p_frame_state);
    release(_m_p_data);
    release(_m_p_data8k);
    release(_m_p_frame_samples);
    release(_m_p_dst_feature);
    release(_m_p_dst_nn);
    release(_m_p_short_frame_in);
    release(_m_p_short_frame_in16k);
    release(_m_p_spec_log_buff);
    release(_m_p_spec_log_smooth_cur_frame);
    release(_m_p_spec_log_smooth);
    release(_m_p_spec_binary);
    release(_m_p_spec_pattern);
    release(_m_p_embd);
    release(_m_p_embd_test);
    _m_p_data_in = nullptr;
    _m_p_data_feed = nullptr;
    _m_p_cmvn_mean = nullptr;
    _m_p_cmvn_var = nullptr;
    _m_p_feat_translator = nullptr;
    destroy(_m_p_pcm2featureft);
    destroy(_m_p_cmvnft);
    destroy(_m_p_concatft);
    destroy(_m_p_dnn);
    destroy(_m_p_windows_detector);
    destroy(_m_p_vad_configer);
    if (_m_p_evad_instance != nullptr) {
        _m_p_evad_instance->exit();
    }
    destroy(_m_p_evad_instance);
    destroy(_m_p_bleep_detector);
    return 0;
}

}  // namespace tz_dnnvad
