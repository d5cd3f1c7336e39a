// Streaming voice-activity and end-point detection: the host's one header.
//
//     tz_dnnvad::CMFE session;
//     session.mfeSetParam(13, 8000);               // rate and buffer length before initialisation
//     if (session.mfeInit("vad8k.bin") != 0) ...
//     while (short chunk[80]; read 10 ms) {
//         session.mfeSendData(chunk, 80);
//         int status = session.mfeDNNDetect();     // one of the status codes below
//         session.mfeGetCallbackData(out, &bytes, sizeof out);
//     }
//     session.mfeSendData(nullptr, 0);             // end of input
//     session.mfeDNNDetect();                      // the final status
//
// One frame is 10 ms. Frame f starts at sample f * shift and is 25 ms long: 200 samples every 80 at
// 8 kHz, 400 every 160 at 16 kHz. All durations are counted in frames.
//
// Status codes (mfeDNNDetect, mfeReturnStatus, UserStop)
//     0  no speech yet
//     1  speech in progress
//     2  pause after speech, or the input has ended
//     3  time-out in silence: before any speech, or after speech
//     4  speech shorter than the minimum (end of input only)
//     5  speech longer than the maximum
//     6  end of speech detected
//
// Error numbers (negative returns)
//     -1    initialisation failed (mfeInit)
//     -102  not silence (mfeIsSil)
//     -103  null pointer, or samples before initialisation
//     -107  allocation failed
//     -109  bad parameter, or value out of range
//     -118  chunk too long, or the stream has reached 2^31 samples: mfeReset
//     -120  a component failed to initialise
//
// Results depend on how the stream is cut into chunks, by design: the status is taken afresh for
// every call, a time-out drops the rest of its call's frames, and an utterance that begins and ends
// within one call after a status 6 leaves no record. Push 10 ms at a time.
//
// Diagnostic lines ("ERROR:[file:line]...", "DEBUG:...") go to standard output, where a 16 kHz session
// also writes "info->fftN 512" for every frame.
//
// Threads: a session belongs to one thread at a time. Different sessions share nothing but the
// read-only kernel switch `qn_math` and may run in different threads at once.
#ifndef DNNVAD_DNN_VAD_H
#define DNNVAD_DNN_VAD_H

#include <vector>

#include "dnnvad/bleep_detect.h"
#include "dnnvad/evad.h"
#include "dnnvad/feat/feature_translate.h"
#include "dnnvad/vad_api.h"
#include "dnnvad/vad_config.h"
#include "dnnvad/vad_nn.h"
#include "dnnvad/windows_detect.h"

namespace tz_dnnvad {

// Names of the frame states; the index is the code: 0 "SPEECH2SPEECH", 1 "SPEECH2SIL", 2 "SIL2SIL",
// 3 "SIL2SPEECH", 4 "NOTBEGIN" (a stage could not supply the frame yet), 5 "INVALID".
extern DNNVAD_API const char g_AudioState[6][16];

// The down-sampler's filter: y[t] = sum over k = 0..19 of b[k] x[t-k] - sum over k = 0..18 of
// a[k] y[t-1-k]. a[19] is unused.
extern DNNVAD_API const float a[20];
extern DNNVAD_API const float b[20];

// One speech segment, in frames.
struct _VADINFO_ {
    int start;         // first frame handed out, start margin included
    int end;           // last frame handed out, end margin included; -1 when just created
    int speech_start;  // first frame judged speech
    int last_speech;   // last frame judged speech; -1 when just created
};

// What a configuration file sets. Durations are in frames. Every member is zero or empty unless the
// file sets it, and no value is checked here: CMFE::mfeSetParam checks what it takes. The layout (16
// four-byte numbers, then 512 + 512 + 256 characters) is part of the interface.
struct cfg_vad_t {
    float speech_threshold;    // PARAM_DNN_SPEECH_threshold, smoothed score that starts speech
    float sil_threshold;       // PARAM_DNN_SIL_threshold, smoothed score that ends speech
    int max_wait;              // PARAM_MAX_WAIT_DURATION
    int max_sp_duration;       // PARAM_MAX_SP_DURATION
    int min_sp_duration;       // PARAM_MIN_SP_DURATION
    int max_sp_pause;          // PARAM_MAX_SP_PAUSE
    int head_sil_duration;     // PARAM_HEAD_SIL_DURATION
    int start_back_frame;      // PARAM_START_BACK_FRAME
    int end_back_frame;        // PARAM_END_BACK_FRAME
    int debug_log;             // PARAM_DEBUG_LOG, level
    int sample_rate;           // PARAM_SAMPLE_RATE, Hz
    int speech_offset;         // PARAM_SPEECH_OFFSET, for the host: the session has no use for it
    int detect_start;          // PARAM_DETECT_START, frame
    int wait_after_minspeech;  // PARAM_WAIT_AFTER_MINSPEECH
    int evad_dnnvad_switch;    // PARAM_EVAD_DNNVAD_SWITCH, 0 or 1
    int bleep_detect;          // PARAM_BLEEP_DETECT, 0 or 1
    char cmvn_file[512];       // PARAM_CMVN_FILE, for the host
    char dnn_file[512];        // PARAM_DNN_FILE; a name of 512 characters or more has no final zero
    char spare[256];           // never filled
};

// Reads a configuration file of lines "KEY:value" into `cfg`, which is cleared first. In dnn_vad_param.cpp.
//
// A key starts in column 0 and is followed directly by ":"; spaces may stand before a value. Lines
// that start with "#", match no key or do not convert are skipped without a message; of a repeated
// key the last line counts; integers beyond 32 bits saturate. Lines are read in pieces of at most
// 1023 characters. File names are one token without white space.
//
// Returns 0, or -1 with a line on standard output when the file cannot be opened or read or has more
// than 65536 lines (`cfg` is then left as it was). The library never calls it: a host hands the values
// to CMFE::mfeSetParam itself.
DNNVAD_API int readcfg(const char* path, cfg_vad_t* cfg);

// One detection session on one audio stream. It owns every component and buffer it creates, from
// initialisation to mfeExit or destruction; the host owns the session. Not copyable.
class DNNVAD_API CMFE {
public:
    // ---- Lifecycle, in dnn_vad.cpp -----------------------------------------------------------

    CMFE();
    ~CMFE();
    CMFE(const CMFE&) = delete;
    CMFE& operator=(const CMFE&) = delete;

    // mfeInit_load_model without a bleep model, so without bleep detection. Returns 0, or -1 after a
    // "Fatal Error" line.
    int mfeInit(const char* dnnfile);

    // Builds the session from a network model file and, with bleep detection on (parameter 26), a
    // bleep template file; a template that is null or cannot be read turns bleep detection off and
    // is no error. A model of 40 features per frame switches the session to the 16 kHz layout and
    // sets the sample rate from its header, whatever that is: the layout is made for 8000 and 16000.
    // What an earlier initialisation made is released first; after a failure mfeExit, destruction
    // and another initialisation are safe.
    // Returns 0, -103 (null or empty model path; an earlier initialisation stays as it was), -107
    // or -120. A file that is cut off gives -120, but one that is no model at all (a template, a
    // recording) mostly ends the process by an assertion, for want of a number of parameters: check
    // what was downloaded by its checksum.
    int mfeInit_load_model(const char* dnnfile, const char* bleepfile);

    // Prepares for the next stream: clears positions, counters, status, segments, the feature
    // history, the smoother and the energy detector. Keeps parameters, models, buffers and
    // `_m_n_evad_active`. Returns 0.
    int mfeReset();

    // Releases everything that initialisation made; may be called at any time, also twice. Returns 0.
    int mfeExit();

    // ---- Parameters, in dnn_vad_param.cpp ----------------------------------------------------

    // Sets a parameter; the value is truncated to an integer (saturating) but for ids 23 and 24.
    //
    //     id  configuration key              unit     default
    //      1  PARAM_MAX_WAIT_DURATION        frames   110   lowers the configured pause below it
    //      2  PARAM_MAX_SP_DURATION          frames   5000
    //      3  PARAM_MAX_SP_PAUSE             frames   90    raises the current wait above it, but only
    //                                                       till the next reset or end of speech:
    //                                                       keep id 1 above it, or status 6 never comes
    //      4  PARAM_MIN_SP_DURATION          frames   25
    //      5  PARAM_HEAD_SIL_DURATION        frames   400
    //      6  PARAM_START_BACK_FRAME         frames   40
    //      7  PARAM_END_BACK_FRAME           frames   40
    //      8  PARAM_DEBUG_LOG                level    0     negative values become 0
    //      9  (audio buffer length)          samples  40000 becomes value / shift + 1 frames, >= 100
    //     10  PARAM_DETECT_START             frame    0
    //     11  (detection on)                 0 or 1   1     write-only
    //     12  (hand out speech only)         0 or 1   1
    //     13  PARAM_SAMPLE_RATE              Hz       8000  8000 or 16000
    //     14  PARAM_WAIT_AFTER_MINSPEECH     frames   200   at least the configured wait; write-only
    //     23  PARAM_DNN_SPEECH_threshold     score    0.2   taken at initialisation
    //     24  PARAM_DNN_SIL_threshold        score    0.2   taken at initialisation
    //     25  PARAM_EVAD_DNNVAD_SWITCH       0 or 1   0
    //     26  PARAM_BLEEP_DETECT             0 or 1   1     0 after an initialisation without template
    //
    // Ids 9 and 13 size buffers at initialisation: set them before. Set later, they change their
    // fields at once, and id 13 the chunk limit, but the rings keep the lengths they were allocated
    // with. Returns 0, or -109 for any other id or a rate that is neither 8000 nor 16000; a ring of
    // more than 2^31 - 1 samples fails at initialisation (-107).
    int mfeSetParam(int id, float value);

    // The value of a parameter as a float, or -109.0 for an id that cannot be read. Id 9 answers
    // the ring's size in bytes.
    float mfeGetParam(int id);

    // 0 turns the debug lines off, any other level sets 7.
    void mfeSetLogLevel(int level);

    // Inert entry points, kept for hosts that call them: both return 0.
    long mfeGetHistVolume();
    int mfeSetHistVolume(long volume);

    // ---- Audio in and out, in dnn_vad_audio.cpp ----------------------------------------------

    // Appends `count` samples of 16-bit PCM at the session's rate; (null, 0) marks the end of input.
    // At most `_m_n_max_data_len` / 2 samples at once: half a ring of the length known when the rate
    // was last set, 20000 samples by default. Older samples are overwritten when a ring's worth is
    // sent without detection.
    // Returns 0, -103 (null samples, or samples before initialisation), -109 (negative count) or -118.
    int mfeSendData(const short* samples, int count);

    // Hands out the audio that the latest detection released: detected speech with its margins, or
    // everything with "speech only" off. `iMaxLen` is the capacity in bytes, `iLen` receives the
    // bytes written. Of a range that does not fit, the newest samples are kept. Call it once per
    // detection: as long as the status says that speech has just begun, the start is handed out anew.
    // With an end margin (id 7) of 0 the 5 ms before a pause that resumes are handed out again with
    // what follows it: kept, hosts depend on the positions.
    // Returns 0, or -103 for a null pointer.
    int mfeGetCallbackData(char* pDataOut, int* iLen, int iMaxLen);

    // How many frames end at or before an input-rate sample position, and the position where a frame
    // ends (so the two differ by one frame). Below one frame the count is rounded towards 0. With an
    // 8 kHz model 0 when the rate is neither 8000 nor 16000. Results saturate.
    int mfeGetFrame(int sample);
    int mfeGetSamplespot(int frame);

    // ---- Detection, in dnn_vad_detect.cpp ----------------------------------------------------

    // Scores every whole frame that arrived since the previous call and moves the state machine. Call
    // it once after each mfeSendData: right after a status 6 a second call scores the last frame anew.
    // Returns the session's status; before initialisation the status as it is.
    int mfeDNNDetect();

    // Scores the frame gathered in `_m_p_frame_samples` and advances the smoother; `smooth` is not
    // consulted. Returns a frame state; 5 before initialisation.
    int mfeVADOneFrame(int frame, bool smooth);

    // Scores `count` samples as one frame (samples beyond the frame length are ignored, missing ones
    // keep what the frame buffer held). With `smooth` false the smoother stays as it is and the
    // result is getFrameState of the posteriors.
    int mfeVADOneFrame(const short* samples, int count, int frame, bool smooth);

    // 1 if the silence posteriors (the first three) sum to at most the speech posteriors (the other
    // six), else 0. Nine values are read, whatever `dim` says; null gives 0.
    int getFrameState(const float* posteriors, int dim);

    // Keeps the frame's log spectrum for the bleep detector while frame < nframes - 1: its average
    // over up to three frames goes into row frame of `log_smooth` (nframes x dim); `log_buff` (3 x
    // dim) and `cur` (dim) are work space.
    void mfeSaveFFT(int frame, int nsmooth, int nframes, float* log_buff, float* cur,
                    float* log_smooth, int dim);

    // Whether frames from .. to - 1 all were silence. Returns 0, -102 when one was not, -109 when a
    // frame is negative, not yet scored or no longer kept. No frames are silence.
    int mfeIsSil(int from, int to);

    // Shortens the pause limit once speech is `length` frames long: the longer, the shorter.
    void mfeAdjustPauseThreshold(int length);

    // Closes the stream after the end of input; mfeDNNDetect calls it. Returns the final status, once:
    // the status field stays 2, which is what later calls answer.
    int UserStop();

    // The status if it is 0..6, else 0; the argument is ignored.
    int mfeReturnStatus(int clipped);

    // ---- Segments, in dnn_vad_segment.cpp ----------------------------------------------------

    // Opens or extends the record of the utterance in progress; the driver calls it after a pass.
    void MakeSegment();

    // ---- Report, in dnn_vad_report.cpp -------------------------------------------------------

    // Prints the segments; with a debug level of 9 or more also writes them to `path` as a Praat
    // TextGrid of one interval tier.
    void PrintSegment(const char* path);

    // ---- Down-sampler, in dnn_vad_downsample.cpp ---------------------------------------------

    // Low-passes and halves `count` samples of 16 kHz PCM from a ring of `capacity` samples into a
    // ring of capacity / 2, in blocks of 80; `out_count` receives count / 2. The filter's state
    // carries over from call to call and is cleared by mfeReset. A last part of a block counts as a
    // whole one that ends in zeros: 40 samples are written, and the zeros enter the filter. In a call
    // from source position 0 the first 19 samples pass unfiltered. Rounding noise is high: convert
    // rates for listening with a resampling library. Returns 0.
    int down_sample(const short* source, int source_pos, int count, short* destination,
                    int destination_pos, int* out_count, int capacity);

    // ---- State -------------------------------------------------------------------------------
    // Readable by hosts, in this order. "(reset)" marks what mfeReset clears or restores.

    // Components, owned; the chain is linked PCM -> CMVN -> concat.
    PCM2FeatureTranslator* _m_p_pcm2featureft = nullptr;
    CMVNFeatureTranslator* _m_p_cmvnft = nullptr;
    ConcatFeatureTranslator* _m_p_concatft = nullptr;
    FeatureTranslator* _m_p_feat_translator = nullptr;  // head of the chain: the first stage
    DNN* _m_p_dnn = nullptr;
    WindowsDetector* _m_p_windows_detector = nullptr;
    VadConfiger* _m_p_vad_configer = nullptr;

    // One frame on its way through the network.
    int _m_n_feat_dim = 0;                // network input width
    float* _m_p_frame_samples = nullptr;  // one frame of samples
    float* _m_p_dst_feature = nullptr;    // network input, 16-byte aligned
    int _m_n_nn_dim = 0;                  // network output width
    float* _m_p_dst_nn = nullptr;         // posteriors

    // Frame layout, samples. The 16 kHz layout is chosen by the model.
    int _m_n_frame_len_8k = 200, _m_n_frame_shift_8k = 80;
    int _m_n_frame_len_16k = 400, _m_n_frame_shift_16k = 160;
    bool _m_b_16k_model = false;
    int _m_n_fbank_low = 40, _m_n_fbank_high = 3800;  // filter-bank edges, Hz
    int _m_n_fbank_dim = 26;                          // filter-bank channels

    // End-point limits, frames.
    int _m_n_max_speech_pause = 90;       // (reset) pause that ends speech, shortened as it grows
    int _m_n_cfg_max_speech_pause = 90;   // its configured value
    int _m_n_max_wait = 110;              // (reset) silence after speech before the time-out
    int _m_n_cfg_max_wait = 110;          // its configured value
    int _m_n_wait_after_minspeech = 200;  // the same after a first segment below the minimum
    int _m_n_head_sil = 400;              // silence before any speech before the time-out
    int _m_n_max_sp_duration = 5000;      // longest speech
    int _m_n_min_sp_duration = 25;        // shortest segment taken as real speech
    int _m_n_start_back_frame = 40;       // margin before speech
    int _m_n_end_back_frame = 40;         // margin after speech

    // Where speech is.
    int _m_n_last_speech = 0;  // (reset) last frame judged speech; 0 = none yet, so an onset
                               // at frame 0 does not count: kept, hosts depend on it
    int _m_n_onset_count = 0;  // (reset) onsets since the last end of speech
    float _m_f_speech_threshold = 0.2F;  // both taken by the smoother at initialisation
    float _m_f_sil_threshold = 0.2F;
    int _m_n_speech_start = 0;  // (reset) first frame of the current speech

    // Sample rings; position p of a ring of length R lies at index p mod R.
    short* _m_p_data_in = nullptr;              // what output is read from: always `_m_p_data`
    int _m_n_buf_frames = 500;                  // ring length, frames
    std::vector<_VADINFO_> _m_v_segments;       // (reset)
    short* _m_p_data_feed = nullptr;            // ring that feeds an 8 kHz model
    short* _m_p_data8k = nullptr;               // 8 kHz ring filled by dropping every second sample
    short* _m_p_data = nullptr;                 // input-rate ring
    unsigned char* _m_p_frame_state = nullptr;  // state of frame f at f mod ring length

    int _m_n_status = 0;       // (reset) status code
    int _m_n_last_status = 0;  // (reset) status at the previous mfeSendData

    // Positions in samples, at the input rate unless named. (reset)
    int _m_n_samples_in = 0;                        // received; with halving, whole blocks of 80
    int _m_n_samples_8k = 0, _m_n_samples_16k = 0;  // available to an 8 kHz / 16 kHz model
    int _m_n_speech_end_sample = 0;                 // where output of the current pass ends
    int _m_n_decim_rest = 0;                        // received beyond the last whole block of 80
    int _m_n_out_begin = 0, _m_n_out_end = 0;       // range still to hand out

    // Positions in frames. (reset, but for the detect start)
    int _m_n_pass_first_frame = 0;  // first frame of the latest pass
    int _m_n_frames_avail = 0;      // whole frames available after the latest pass
    int _m_n_detect_start = 0;      // calls that do not reach this frame are not scored
    int _m_n_cur_frame = 0;         // next frame to score
    int _m_n_onset_frame = 0;       // latest onset
    int _m_n_prev_last_speech = 0;  // last speech before the latest onset; UserStop: the stop frame
    int _m_n_reserved = 4;          // never read
    int _m_n_user_stop = 0;         // (reset) 1 from the end of input until UserStop

    bool _m_b_vad_enable = true;   // detection on
    bool _m_b_speech_only = true;  // hand out only speech
    bool _m_b_started = true;      // set by reset and initialisation, never read
    bool _m_b_data_end = false;    // (reset) end of input while detection is off

    float* _m_p_cmvn_mean = nullptr;  // normalisation vectors, borrowed from the network
    float* _m_p_cmvn_var = nullptr;

    float ds_x_hist[20];  // (reset) down-sampler: element k is x[t - k]
    float ds_y_hist[19];  // (reset) down-sampler: element k is y[t - 1 - k]

    int _m_n_sample_rate = 8000;    // Hz
    int _m_n_speech_frames = 0;     // (reset) frames judged other than SIL2SIL
    int _m_n_sil_frames = 0;        // (reset) frames judged SIL2SIL
    int _m_n_frame_shift = 80;      // input samples per frame: rate / 100
    int _m_n_debug_log = 0;         // > 0 prints debug lines, >= 9 lets PrintSegment write its file
    int _m_n_max_data_len = 40000;  // twice the largest chunk, samples

    // Energy detector that gates the network in long silences.
    int _m_n_evad_switch = 0;  // gating allowed
    tz_evad::Vad* _m_p_evad_instance = nullptr;
    int _m_n_evad_active = 0;                 // 1 while it gates; not cleared by mfeReset
    int _m_n_evad_sil_frames = 30;            // frames since speech before gating may start
    int _m_n_evad_energy = 20000;             // frame energy (sum of |sample|) below which it may
    short* _m_p_short_frame_in = nullptr;     // one shift of samples, 8 kHz
    short* _m_p_short_frame_in16k = nullptr;  // one shift of samples, 16 kHz
    int _m_n_evad_on_frame = 0;               // (reset) frame at which gating last started

    // Bleep detector. F = spectrum bins per frame.
    int _m_n_fft_size = 128;                          // F: 128 (8 kHz model) or 256 (16 kHz model)
    int _m_n_spec_smooth_frames = 3;                  // spectra averaged
    int _m_n_spec_frames = 120;                       // spectra kept
    float _m_f_bleep_margin = -15.0F;                 // binarisation margin below the maximum
    float* _m_p_spec_log_buff = nullptr;              // 3 x F
    float* _m_p_spec_log_smooth_cur_frame = nullptr;  // F
    float* _m_p_spec_log_smooth = nullptr;            // 120 x F
    char* _m_p_spec_binary = nullptr;                 // 120 x F
    int _m_n_pattern_low = 5;                         // first used bin + 1
    int _m_n_pattern_frames = 15;                     // template rows
    char* _m_p_spec_pattern = nullptr;                // 15 x F
    float* _m_p_embd = nullptr;                       // bias and F - 5 weights
    float* _m_p_embd_test = nullptr;                  // F - 5 counts
    int _m_n_flag = 1;                                // never read
    BleepDetector* _m_p_bleep_detector = nullptr;
    float _m_f_bleep_threshold = 0.5F;  // score above which the first segment is a bleep
    int _m_n_bleep_detect = 1;          // bleep detection on; cleared when there is no template

    // Lengths that the rings were allocated with; 0 while there is none. Ring arithmetic uses these,
    // so that parameters set after initialisation cannot lead beyond a ring.
    int _m_n_ring_frames = 0;     // `_m_p_frame_state`, frames
    int _m_n_ring_samples = 0;    // `_m_p_data`, samples
    int _m_n_ring_samples8k = 0;  // `_m_p_data8k`, samples
    bool _m_b_ready = false;      // initialisation has succeeded

private:
    // Steps of mfeInit_load_model, each with its messages; 0 or an error number.
    DNNVAD_LOCAL int allocate_rings();
    DNNVAD_LOCAL int load_network(const char* dnnfile);
    DNNVAD_LOCAL int resize_input_ring();
    DNNVAD_LOCAL int allocate_frame_buffers();
    DNNVAD_LOCAL int allocate_bleep_buffers(const char* bleepfile);
    DNNVAD_LOCAL int build_feature_chain();
    DNNVAD_LOCAL int create_energy_vad();

    DNNVAD_LOCAL int set_sample_rate(int rate);

    int frame_length() const { return _m_b_16k_model ? _m_n_frame_len_16k : _m_n_frame_len_8k; }
    int model_shift() const { return _m_b_16k_model ? _m_n_frame_shift_16k : _m_n_frame_shift_8k; }

    // Steps of mfeSendData and mfeGetCallbackData.
    DNNVAD_LOCAL void halve_new_samples(int end);
    DNNVAD_LOCAL int hand_out(char* out, int capacity);

    // Steps of mfeDNNDetect.
    DNNVAD_LOCAL int detect_pass_through();
    DNNVAD_LOCAL bool begin_pass();
    DNNVAD_LOCAL void gather_frame(int frame);
    template <typename Sample>
    DNNVAD_LOCAL void read_model_ring(long long position, int count, Sample* samples);
    DNNVAD_LOCAL int frame_state(int frame);
    DNNVAD_LOCAL bool compute_posteriors(int count, int frame);
    DNNVAD_LOCAL bool transition(int f, int state);
    DNNVAD_LOCAL bool silence_transition(int f);
    DNNVAD_LOCAL void gate_with_energy(int f);
    DNNVAD_LOCAL int frame_energy() const;
    DNNVAD_LOCAL void end_of_speech(int frame);
    DNNVAD_LOCAL bool is_bleep();
    DNNVAD_LOCAL int margin_end();
    DNNVAD_LOCAL int segment_start() const;
};

}  // namespace tz_dnnvad

#endif
