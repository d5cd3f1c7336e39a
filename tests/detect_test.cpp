// The driver, its end-point state machine and the segment list, with scripted frame states.
#include <malloc.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "dnnvad/dnn_vad.h"
#include "model_writer.h"
#include "test_support.h"

namespace {

using namespace tz_dnnvad;
using test::printed;
using test::TempFile;
using Segments = std::vector<std::vector<int>>;

// Stands at the head of the chain and gives the network what the script says about a frame:
// 'S' speech, '.' silence, '?' that it cannot supply the frame yet, '!' that it failed.
class Script : public FeatureTranslator {
public:
    Script() : FeatureTranslator(200, 26), spectrum(128, 0.0F) {
        fftFeature = spectrum.data();
        fftDim = 128;
    }
    int translate(float* feat, int dim, int frame) override {
        frames.push_back(frame);
        samples.assign(feat, feat + srcDim);
        count = dim;
        std::fill(spectrum.begin(), spectrum.end(), static_cast<float>(frame));
        return 0;
    }
    int read(float* out, int dim) override {
        const auto f = static_cast<std::size_t>(frames.back());
        const char kind = f < text.size() ? text[f] : '.';
        if (kind == '!') {
            return -1;
        }
        std::fill_n(out, dim, 0.0F);
        std::fill_n(out + (kind == 'S' ? 3 : 0), kind == 'S' ? 6 : 3, 10.0F);
        return kind == '?' ? -2 : dim;
    }

    std::string text;
    std::vector<int> frames;     // in the order in which they were scored
    std::vector<float> samples;  // of the latest frame
    int count = 0;               // what the session says of their number
    std::vector<float> spectrum;
};

// The network passes nine inputs on to the softmax.
test::Model pass_through_model() {
    test::Model model;
    model.sizes = {26, 9};
    model.parameters.assign(27 * 9, 0.0F);
    for (std::size_t k = 0; k < 9; ++k) {
        model.parameters[k * 27] = 1.0F;
    }
    return model;
}

// A session with a script and a smoother without memory: a frame's state follows from the script at
// the frame and at the one before. The limits are small: wait 12, pause 5, head silence 10, minimum
// 4 frames, margins 3 and 2.
class Driver : public testing::Test {
protected:
    Driver() : model_(pass_through_model().bytes()) {
        set({{1, 12}, {3, 5}, {4, 4}, {5, 10}, {6, 3}, {7, 2}, {23, 0.1F}, {24, 0.1F}});
        initialise(nullptr);
    }

    void set(const std::vector<std::pair<int, float>>& parameters) {
        for (const auto& parameter : parameters) {
            EXPECT_EQ(session.mfeSetParam(parameter.first, parameter.second), 0);
        }
    }

    void initialise(const char* bleep) {
        ASSERT_EQ(session.mfeInit_load_model(model_.path(), bleep), 0);
        session._m_p_windows_detector->_avg_len = session._m_p_windows_detector->_max_len = 1;
        session._m_p_feat_translator = &script;
    }

    // A stream whose frames are those of `text`, or its continuation, one frame at a time. Returns
    // the statuses, one digit per frame.
    std::string run(const std::string& text) {
        session.mfeReset();
        script.text.clear();
        script.frames.clear();
        return go_on(text);
    }
    std::string go_on(const std::string& text, int level = 0) {
        std::string statuses;
        for (const char kind : text) {
            script.text += kind;
            statuses += static_cast<char>('0' + pass(1, level));
        }
        return statuses;
    }

    // One call with the samples of `frames` more frames, all `level`.
    int pass(int frames, int level = 0) {
        const int count = 80 * frames + (session._m_n_samples_in == 0 ? 120 : 0);
        std::vector<short> samples(static_cast<std::size_t>(count), static_cast<short>(level));
        EXPECT_EQ(session.mfeSendData(samples.data(), count), 0);
        return session.mfeDNNDetect();
    }

    // The answer to the end of input.
    int stop() {
        EXPECT_EQ(session.mfeSendData(nullptr, 0), 0);
        return session.mfeDNNDetect();
    }

    Segments segments() const {
        Segments list;
        for (const _VADINFO_& g : session._m_v_segments) {
            list.push_back({g.start, g.end, g.speech_start, g.last_speech});
        }
        return list;
    }

    CMFE session;
    Script script;

private:
    TempFile model_;
};

const std::string kUtterance = "..SSSSSSSSSSSS";  // speech from frame 2 to 13, 14 is SPEECH2SIL

TEST_F(Driver, OneUtterance) {
    // Speech ends at frame 20, six frames after the last speech, and the wait at frame 27.
    EXPECT_EQ(run(kUtterance + std::string(15, '.')), "00111111111111122222666666633");
    EXPECT_EQ(segments(), (Segments{{0, 16, 2, 14}}));
    EXPECT_EQ(std::count(script.frames.begin(), script.frames.end(), 20), 2);  // kept
    EXPECT_EQ(session._m_n_speech_frames, 13);
    EXPECT_EQ(session._m_n_sil_frames, 17);
    const unsigned char* const states = session._m_p_frame_state;
    EXPECT_EQ(std::string(states, states + 17),
              std::string("\2\2\3\0\0\0\0\0\0\0\0\0\0\0\1\2\2", 17));
    const int cur = session._m_n_cur_frame;
    const std::vector<std::vector<int>> ranges = {{0, 2, 0},     {15, cur, 0}, {14, 20, -102},
                                                  {1, 3, -102},  {20, 3, 0},   {0, cur + 1, -109},
                                                  {-1, 1, -109}, {-1, -1, 0},  {1, -1, 0}};
    for (const auto& range : ranges) {
        EXPECT_EQ(session.mfeIsSil(range[0], range[1]), range[2]) << range[0] << " " << range[1];
    }
    set({{5, 600}});
    run(std::string(500, '.'));
    EXPECT_EQ(session.mfeIsSil(0, 1), -109);  // no longer kept
    EXPECT_EQ(session.mfeIsSil(1, 500), 0);
}

TEST_F(Driver, SpeechAfterAnUtteranceOpensARecord) {
    run(kUtterance + "......");
    EXPECT_EQ(go_on(".SS.."), "61112");
    EXPECT_EQ(segments(), (Segments{{0, 16, 2, 14}, {14, 25, 21, 23}}));
    EXPECT_EQ(session._m_n_prev_last_speech, 14);
    EXPECT_EQ(session._m_n_onset_frame, 21);
    EXPECT_EQ(go_on("SS......."), "111222226");
    EXPECT_EQ(segments().back(), (std::vector<int>{14, 29, 21, 27}));
    EXPECT_EQ(go_on("S......."), "11222226");
    EXPECT_EQ(session._m_n_last_speech, 35);  // only a first utterance may be a blip
    EXPECT_EQ(session._m_n_max_wait, 12);
    // Without an onset since the end of speech, a silence within all limits keeps the status.
    EXPECT_EQ(go_on("......."), "6666663");
    set({{1, 100}, {3, 90}, {7, 80}});
    EXPECT_EQ(go_on("."), "3");
    EXPECT_EQ(session._m_n_sil_frames, 32);
}

TEST_F(Driver, SilenceLimits) {
    EXPECT_EQ(run(std::string(11, '.')), "00000000000");
    session._m_n_max_speech_pause = 1;
    EXPECT_EQ(go_on("."), "3");
    EXPECT_EQ(session._m_n_max_speech_pause, 5);
    EXPECT_EQ(go_on(".S"), "31");  // out of a time-out speech opens no record, its end does
    EXPECT_TRUE(segments().empty());
    EXPECT_EQ(go_on("......."), "1222226");
    EXPECT_EQ(segments(), (Segments{{9, 16, 12, 14}}));
    // A blip of nine frames is forgotten: silence counts from frame 0 again.
    EXPECT_EQ(run("..SSSSSSSSS........"), "0011111111112222263");
    EXPECT_EQ(session._m_n_last_speech, 0);
    // One of ten is none; below the minimum it gets the longer wait, until speech ends again.
    set({{4, 11}, {14, 20}});
    EXPECT_EQ(run("..SSSSSSSSSS" + std::string(22, '.')).substr(32), "63");
    EXPECT_EQ(session._m_n_max_wait, 20);
    go_on("S.");
    EXPECT_EQ(session._m_n_max_wait, 12);
    set({{4, 10}});
    run("..SSSSSSSSSS.......");
    EXPECT_EQ(session._m_n_max_wait, 12);
}

TEST_F(Driver, LongSpeechEndsSooner) {
    set({{2, 8}});
    EXPECT_EQ(run(".SSSSSSSSSSS"), "011111111155");
    EXPECT_EQ(session._m_n_max_speech_pause, -1);  // (1 - 10 / 8.01) * 5
    EXPECT_EQ(go_on(".."), "16");
    EXPECT_EQ(session._m_n_max_speech_pause, 5);
    set({{2, 5000}, {1, 110}, {3, 90}});
    const std::pair<int, int> cases[] = {{1000, 90}, {1001, 71}, {5001, 0}};
    for (const auto& one : cases) {
        session.mfeAdjustPauseThreshold(one.first);
        EXPECT_EQ(session._m_n_max_speech_pause, one.second) << one.first;
    }
    set({{2, 1999}});
    session.mfeAdjustPauseThreshold(999);
    EXPECT_EQ(session._m_n_max_speech_pause, 0);
    session.mfeAdjustPauseThreshold(1000);
    EXPECT_EQ(session._m_n_max_speech_pause, 44);
}

TEST_F(Driver, FramesWithoutAJudgementLeaveTheStatus) {
    set({{8, 1}});
    const std::string log = printed([&] { EXPECT_EQ(run(".?"), "00"); });
    const std::string debug = "DEBUG:[dnnvad/dnn_vad_detect.cpp:]";
    const std::string pause = debug + "_m_n_max_speech_pause = 5\n\n";
    EXPECT_EQ(log, debug + "frame:0, vadstate:SIL2SIL\n" + pause + debug +
                       "frame:1, vadstate:NOTBEGIN\n" + pause);
    set({{8, 0}});
    EXPECT_EQ(go_on("S?"), "11");
    session._m_n_evad_active = 7;
    EXPECT_EQ(go_on("."), "1");
    EXPECT_EQ(session._m_p_frame_state[4], 5);
    EXPECT_EQ(session._m_n_speech_frames, 4);
    session._m_n_status = 9;
    EXPECT_EQ(session.mfeReturnStatus(1), 0);
    session._m_n_evad_active = 0;
    mallopt(M_PERTURB, 165);  // fresh memory is zero by luck alone
    initialise(nullptr);
    mallopt(M_PERTURB, 0);
    run("!");  // the network goes on with the features that there are: zeros
    EXPECT_EQ(session._m_p_dst_nn[0], session._m_p_dst_nn[8]);
    EXPECT_NEAR(session._m_p_dst_nn[8], 1.0 / 9.0, 1e-6);
}

TEST_F(Driver, PassesOverManyFrames) {
    script.text = kUtterance;
    EXPECT_EQ(pass(30), 6);
    EXPECT_EQ(segments(), (Segments{{0, 16, 2, 14}}));
    EXPECT_EQ(session._m_n_frames_avail, 20);
    EXPECT_EQ(pass(1), 3);  // goes over the rest, to frame 27
    EXPECT_EQ(script.frames.back(), 27);
    EXPECT_EQ(pass(1), 3);  // what a time-out leaves of its pass is dropped
    EXPECT_EQ(script.frames.back(), 31);
    EXPECT_EQ(session.mfeDNNDetect(), 3);
    EXPECT_EQ(session._m_n_pass_first_frame, 32);

    run(kUtterance + ".......");
    script.text += "S..";  // begins and ends within a pass: speech stays ended
    EXPECT_EQ(pass(3), 6);
    EXPECT_EQ(segments().size(), 1U);

    set({{10, 5}});  // the detect start skips whole calls
    EXPECT_EQ(run("......S"), "0000001");
    EXPECT_EQ(script.frames, (std::vector<int>{5, 6}));
    EXPECT_EQ(segments(), (Segments{{5, -1, 6, -1}}));
    run("");
    pass(7);
    EXPECT_EQ(script.frames.front(), 0);
}

TEST_F(Driver, EndOfInput) {
    const struct {
        std::string stream;
        int max_speech, answer, output_end;
    } cases[] = {{".", 5000, 3, 200},
                 {".SSS", 5000, 4, 440},
                 {".SSSS", 5000, 2, 520},
                 {".SSSS", 13, 5, 520},
                 {".SSSS", 14, 2, 520},
                 {kUtterance + "..", 5000, 2, 1400},
                 {kUtterance + ".......", 5000, 2, 200 + 80 * 16},  // speech had ended
                 {kUtterance + "........", 5000, 2, 200 + 80 * 21}};
    for (const auto& one : cases) {
        set({{2, static_cast<float>(one.max_speech)}});
        run(one.stream);
        EXPECT_EQ(stop(), one.answer) << one.stream;
        EXPECT_EQ(session._m_n_out_end, one.output_end) << one.stream;
        EXPECT_EQ(session._m_n_status, 2);  // as the end of input set it
    }
}

TEST_F(Driver, SegmentRules) {
    const struct {
        int end, last_speech;                           // of the record before; -1: there is none
        int status, last, onsets, speech_start, start;  // -1: no new record
    } cases[] = {
        {-1, -1, 1, 0, 1, 30, 0},      {-1, -1, 1, 0, 1, 60, 20},     {495, 455, 1, 0, 1, 500, 460},
        {-1, -1, 5, 0, 1, 60, -1},     {-1, -1, 2, 0, 1, 60, -1},     {-1, -1, 1, 6, 1, 60, -1},
        {495, 455, 1, 6, 1, 500, 490}, {495, 455, 1, 6, 1, 504, 494}, {495, 455, 5, 6, 3, 505, 495},
        {495, 493, 1, 6, 1, 500, 493}, {495, 455, 2, 6, 1, 600, 560}, {495, 455, 2, 6, 2, 600, -1},
        {495, 455, 6, 6, 1, 600, -1}};
    set({{6, 40}});
    session._m_n_cur_frame = 700;
    session._m_n_last_speech = 650;
    for (const auto& rule : cases) {
        session._m_v_segments.clear();
        if (rule.end >= 0) {
            session._m_v_segments.push_back({0, rule.end, 40, rule.last_speech});
        }
        Segments expected = segments();
        if (rule.start >= 0) {
            expected.push_back({rule.start, -1, rule.speech_start, -1});
        }
        session._m_n_status = rule.status;
        session._m_n_last_status = rule.last;
        session._m_n_onset_count = rule.onsets;
        session._m_n_speech_start = rule.speech_start;
        session.MakeSegment();
        EXPECT_EQ(segments(), expected) << rule.status << rule.last << rule.speech_start;
    }
    for (const int last : {1, 2, 3, 4, 5}) {  // a record is open
        session._m_v_segments = {{1, 2, 3, 4}, {5, -1, 6, -1}};
        session._m_n_last_status = last;
        session.MakeSegment();
        EXPECT_EQ(segments(), (Segments{{1, 2, 3, 4}, {5, 700, 6, 650}}));
    }
}

TEST_F(Driver, EnergyDetectorGatesLongQuietSilence) {
    set({{5, 400}, {25, 1}});
    run("");
    EXPECT_EQ(go_on(std::string(40, '.'), 100), std::string(40, '0'));
    EXPECT_EQ(session._m_n_evad_active, 0);  // 200 times 100 is not below the limit
    run("");
    EXPECT_EQ(go_on(std::string(32, '.') + std::string(20, 'S'), 99), std::string(52, '0'));
    EXPECT_EQ(session._m_n_evad_on_frame, 31);
    EXPECT_EQ(script.frames.back(), 31);
    EXPECT_EQ(go_on("SS", 9000), "00");  // the detector's onset is silence still
    EXPECT_EQ(session.mfeIsSil(0, 54), 0);
    EXPECT_EQ(session._m_p_evad_instance->frame_count, 0);
    // The network is back, for 30 frames since the gating began at least.
    EXPECT_EQ(go_on("........"), "00000000");
    EXPECT_EQ(script.frames.back(), 61);
    EXPECT_EQ(session._m_n_evad_active, 0);
    go_on(".");
    EXPECT_EQ(session._m_n_evad_on_frame, 62);
    session.mfeReset();
    EXPECT_EQ(session._m_n_evad_active, 1);  // kept
}

TEST_F(Driver, BleepIsNotSpeech) {
    std::string pattern, weights;
    for (int k = 0; k < 15 * 128; ++k) {
        pattern += "0 ";
        weights += k < 123 ? " 0" : "";
    }
    const std::string speech = "." + std::string(16, 'S');
    for (const int bias : {4, -4}) {
        const TempFile bleep(pattern + std::to_string(bias) + weights);
        set({{26, 1}});
        initialise(bleep.path());
        run(speech + "......");
        const std::string log = printed([&] { EXPECT_EQ(go_on("."), bias > 0 ? "0" : "6"); });
        EXPECT_EQ(log, bias > 0 ? "the decision score is 0.982014\nwe have detect didi\n"
                                  "the _m_n_head_sil is 10\n"
                                : "the decision score is 0.017986\n");
        EXPECT_EQ(session._m_n_last_speech, bias > 0 ? 0 : 17);
        EXPECT_EQ(segments().size(), 1U);
    }
    // The spectra of frame f are all f; averaged over three that is f - 1.
    const float* const rows = session._m_p_spec_log_smooth;
    EXPECT_EQ(rows[0], 0.0F);
    EXPECT_EQ(rows[128], 0.5F);
    EXPECT_EQ(rows[128 * 23 + 127], 22.0F);
    // Too short, too late, or switched off: nobody asks.
    EXPECT_EQ(printed([&] { run("." + std::string(15, 'S') + "......."); }), "");
    set({{5, 400}});
    EXPECT_EQ(printed([&] { run(std::string(103, '.') + speech + "......."); }), "");
    EXPECT_EQ(rows[128 * 118], 117.0F);
    EXPECT_EQ(rows[128 * 119], 0.0F);
    set({{26, 0}});
    initialise(nullptr);
    set({{26, 1}});  // without buffers
    EXPECT_EQ(printed([&] { run(speech + "......."); }), "");
}

TEST_F(Driver, HostScoresSingleFrames) {
    script.text = ".S?S";
    const std::vector<short> few = {-32768, 32767, 3}, many(500, 1);
    EXPECT_EQ(session.mfeVADOneFrame(few.data(), 3, 1, false), 1);
    EXPECT_EQ(script.count, 3);
    EXPECT_EQ(script.samples[0], -32768.0F);
    EXPECT_EQ(session.mfeVADOneFrame(few.data(), 1, 0, false), 0);
    EXPECT_EQ(script.samples[1], 32767.0F);  // as it was
    EXPECT_EQ(session.mfeVADOneFrame(few.data(), 3, 2, false), 4);
    EXPECT_EQ(session.mfeVADOneFrame(few.data(), 3, 3, true), 3);
    EXPECT_EQ(session.mfeVADOneFrame(0, false), 1);
    EXPECT_EQ(script.count, 200);
    session.mfeVADOneFrame(many.data(), 500, 0, true);  // the rest is ignored
    float posteriors[] = {0.5F, 0.25F, 0.25F, 0.125F, 0.25F, 0.125F, 0.25F, 0.0F, 0.25F};
    EXPECT_EQ(session.getFrameState(posteriors, 0), 1);
    posteriors[8] = 0.2F;
    EXPECT_EQ(session.getFrameState(posteriors, 0), 0);
}

}  // namespace
