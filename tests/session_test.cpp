// The session's life and its rings.
#include <algorithm>
#include <climits>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "dnnvad/dnn_vad.h"
#include "model_writer.h"
#include "test_support.h"

namespace {

using namespace tz_dnnvad;
using test::Model;
using test::printed;
using Samples = std::vector<short>;

const std::string kPrefix = "ERROR:[dnnvad/dnn_vad.cpp:]";

Samples noise(std::size_t count, int level, unsigned seed = 1) {
    std::mt19937 generator(seed);
    Samples samples(count);
    for (short& sample : samples) {
        const auto span = 2 * static_cast<unsigned>(level) + 1;
        sample = static_cast<short>(static_cast<int>(generator() % span) - level);
    }
    return samples;
}

int send(CMFE& session, const Samples& samples) {
    return session.mfeSendData(samples.data(), static_cast<int>(samples.size()));
}

Samples take(CMFE& session, int capacity) {
    std::vector<char> buffer(static_cast<std::size_t>(std::max(capacity, 0)) + 3, 'x');
    char* const odd = buffer.data() + 1;  // no alignment is asked for
    int bytes = -1;
    EXPECT_EQ(session.mfeGetCallbackData(odd, &bytes, capacity), 0);
    EXPECT_EQ(odd[bytes], 'x');
    Samples samples(static_cast<std::size_t>(bytes) / 2);
    std::copy_n(odd, bytes, reinterpret_cast<char*>(samples.data()));
    return samples;
}

// The error number of an initialisation, and what it printed.
std::string init(CMFE& session, const Model& model) {
    const test::TempFile file(model.bytes());
    int error = 0;
    const std::string log =
        printed([&] { error = session.mfeInit_load_model(file.path(), nullptr); });
    return std::to_string(error) + " " + log;
}

TEST(Session, FieldsThatNoParameterAnswers) {
    const CMFE s;
    const std::vector<int> fields = {
        s._m_n_wait_after_minspeech, s._m_n_max_wait,      s._m_n_max_speech_pause,
        s._m_n_frame_len_8k,         s._m_n_frame_len_16k, s._m_n_fbank_low,
        s._m_n_fbank_high,           s._m_n_fbank_dim,     s._m_n_evad_sil_frames,
        s._m_n_evad_energy,          s._m_n_fft_size,      s._m_n_spec_frames,
        s._m_n_spec_smooth_frames,   s._m_n_pattern_low,   s._m_n_pattern_frames,
        s._m_n_max_data_len,         s._m_n_reserved,      s._m_n_flag};
    EXPECT_EQ(fields, (std::vector<int>{200, 110, 90, 200, 400, 40, 3800, 26, 30, 20000, 128, 120,
                                        3, 5, 15, 40000, 4, 1}));
    EXPECT_EQ(s._m_f_bleep_margin, -15.0F);
    EXPECT_EQ(s._m_f_bleep_threshold, 0.5F);
    EXPECT_TRUE(s._m_b_vad_enable && s._m_b_speech_only && !s._m_b_16k_model && !s._m_b_data_end);
}

TEST(Session, FailuresAreNamedAndLeaveARoadBack) {
    CMFE session;
    EXPECT_EQ(printed([&] { EXPECT_EQ(session.mfeInit(""), -1); }),
              kPrefix + "NULL POINTER: dnnfile=\n" + kPrefix +
                  "Fatal Error: MFE Init fail! ErrorNo: -103\n");
    EXPECT_EQ(printed([&] { EXPECT_EQ(session.mfeInit("/nowhere"), -1); }),
              "ERROR:[dnnvad/vad_nn.cpp:]failed to open dnn model file[/nowhere]\n" + kPrefix +
                  "DNN Init Failed\n" + kPrefix + "Fatal Error: MFE Init fail! ErrorNo: -120\n");
    Model model = test::loudness_model(26);
    model.header[0] = 25;
    model.means.pop_back();
    model.rev_vars.pop_back();
    EXPECT_EQ(init(session, model),
              "-120 " + kPrefix + "model feature dim = 25, should be at least 26\n");
    EXPECT_EQ(init(session, test::random_model({27, 9})),
              "-120 ERROR:[dnnvad/feat/feature_translate.cpp:]ConcatFeatureTranslator init "
              "dstDim:27 srcDim:26 not exact division\n\n" +
                  kPrefix + "_m_p_feat_translator Init Failed\n");
    model = test::loudness_model(40);
    model.header[1] = 44100;
    EXPECT_EQ(init(session, model), "0 ");  // taken as it is
    EXPECT_EQ(session.mfeGetParam(13), 44100.0F);
    EXPECT_EQ(send(session, noise(20000, 1)), 0);
    EXPECT_EQ(session.mfeDNNDetect(), 0);
    EXPECT_EQ(session.mfeGetFrame(401), 1);
    printed([&] { session.mfeExit(); });
    model.header[1] = 16000;
    model.parameters.pop_back();
    model.count_line = "729\n";
    EXPECT_EQ(init(session, model).substr(0, 4), "-120");
    EXPECT_TRUE(session._m_b_16k_model);  // taken before the network's state is looked at
    EXPECT_EQ(session._m_n_frame_shift, 160);
    EXPECT_EQ(session.mfeDNNDetect(), 0);
    printed([&] { EXPECT_EQ(send(session, noise(200, 1)), -103); });

    ASSERT_EQ(session.mfeSetParam(13, 8000), 0);
    EXPECT_EQ(init(session, test::loudness_model(26)), "0 ");
    EXPECT_EQ(printed([&] { EXPECT_EQ(session.mfeInit_load_model(nullptr, nullptr), -103); }),
              kPrefix + "NULL POINTER: dnnfile=(null)\n");
    EXPECT_EQ(send(session, noise(200, 1)), 0);  // the earlier initialisation stands
    session._m_n_frame_shift = 160;              // as after a model that raised it
    session._m_n_buf_frames = INT_MAX / 100;
    EXPECT_EQ(init(session, test::loudness_model(26)).substr(0, 4), "-107");
}

TEST(Session, BeforeInitialisationAndAfterExit) {
    CMFE session;
    const Samples samples = noise(200, 1);
    for (int time = 0; time < 3; ++time) {
        EXPECT_EQ(session.mfeExit(), 0);
        printed([&] { EXPECT_EQ(send(session, samples), -103); });
        EXPECT_EQ(session.mfeDNNDetect(), 0);
        EXPECT_EQ(session.mfeVADOneFrame(0, true), 5);
        EXPECT_EQ(session.mfeVADOneFrame(samples.data(), 200, 0, true), 5);
        session._m_n_samples_in = session._m_n_out_end = session._m_n_cur_frame = 300;
        session._m_n_status = session._m_n_last_status = 1;
        EXPECT_EQ(session.mfeIsSil(0, 1), -109);
        EXPECT_EQ(session.mfeIsSil(1, 1), 0);  // no frame, so none that was not
        EXPECT_TRUE(take(session, 1000).empty());
        float values[128];
        session.mfeSaveFFT(0, 3, 120, values, values, values, 128);
        session.mfeReset();
        EXPECT_EQ(session.mfeSendData(samples.data(), 0), 0);
        EXPECT_EQ(session.mfeSendData(nullptr, 0), 0);
        EXPECT_EQ(session.mfeDNNDetect(), 3);
        EXPECT_EQ(session.mfeSetParam(11, 0), 0);
        EXPECT_EQ(session.mfeDNNDetect(), 1);
        EXPECT_EQ(session._m_v_segments.size(), 1U);
        EXPECT_EQ(session.mfeSetParam(11, 1), 0);
        EXPECT_EQ(init(session, test::loudness_model(26)), "0 ");
        EXPECT_EQ(session._m_n_status, 0);
    }
}

TEST(Session, ModelsChooseTheLayout) {
    CMFE session;
    const auto layout = [&] {
        return std::vector<int>{
            session._m_n_sample_rate,  session._m_n_frame_shift, session._m_n_max_data_len,
            session._m_n_ring_samples, session._m_n_fft_size,    session._m_n_fbank_dim,
            session._m_n_fbank_high,   session.mfeGetFrame(560), session.mfeGetSamplespot(1)};
    };
    Model wide = test::loudness_model(40);
    for (int time = 0; time < 2; ++time) {
        session.mfeSetParam(13, 8000);
        session.mfeSetParam(26, 1);
        EXPECT_EQ(init(session, wide), "0 ");
        EXPECT_EQ(session._m_n_bleep_detect, 0);  // no template is no failure
        EXPECT_EQ(layout(), (std::vector<int>{16000, 160, 40000, 80000, 256, 40, 7600, 2, 560}));
        printed([&] { EXPECT_EQ(send(session, noise(20001, 1)), -118); });  // the limit is id 13's
        session.mfeSetParam(13, 8000);
        EXPECT_EQ(init(session, test::loudness_model(26)), "0 ");
        EXPECT_EQ(layout(), (std::vector<int>{8000, 80, 40000, 40000, 128, 26, 3800, 5, 280}));
    }
    session.mfeSetParam(13, 16000);
    wide.header[1] = 8000;
    EXPECT_EQ(init(session, wide), "0 ");  // frames are 160 samples apart all the same
    EXPECT_EQ(layout(), (std::vector<int>{8000, 80, 80000, 80000, 256, 40, 7600, 2, 560}));
    printed([&] {
        for (int i = 0; i < 15; ++i) {
            EXPECT_EQ(send(session, noise(16000, 3000)), 0);
            session.mfeDNNDetect();
        }
    });
    EXPECT_EQ(session._m_n_frames_avail, (240000 - 400) / 160 + 1);
}

TEST(Audio, ChunksAreLimited) {
    CMFE session;
    init(session, test::loudness_model(26));
    const Samples samples = noise(20001, 100);
    EXPECT_EQ(session.mfeSendData(samples.data(), 20000), 0);
    EXPECT_EQ(printed([&] { EXPECT_EQ(send(session, samples), -118); }),
              "ERROR:[dnnvad/dnn_vad_audio.cpp:]iLen*2[40002] > MaxDataLenOneTime[40000]\n");
    EXPECT_EQ(session.mfeSendData(samples.data(), -1), -109);
    printed([&] {
        EXPECT_EQ(session.mfeSendData(nullptr, 20001), -118);
        EXPECT_EQ(session.mfeSendData(nullptr, 5), -103);
    });
    EXPECT_EQ(session._m_n_samples_in, 20000);
    // Positions end with 32 bits.
    session._m_n_samples_in = INT_MAX - 100;
    EXPECT_EQ(session.mfeSendData(samples.data(), 80), 0);
    printed([&] { EXPECT_EQ(session.mfeSendData(samples.data(), 21), -118); });
    EXPECT_EQ(session._m_n_samples_in, INT_MAX - 20);
    session._m_n_frames_avail = session.mfeGetFrame(INT_MAX - 20) - 2;
    EXPECT_EQ(session.mfeDNNDetect(), 3);
    EXPECT_EQ(session.mfeGetSamplespot(INT_MAX), INT_MAX);
    EXPECT_EQ(session.mfeGetFrame(INT_MIN), -26843547);
    EXPECT_EQ(session.mfeGetFrame(130), 1);  // truncated towards 0
}

TEST(Audio, HalvingCountsWholeBlocks) {
    CMFE session;
    session.mfeSetParam(13, 16000);
    session.mfeSetParam(9, 16000);  // 101 frames
    init(session, test::loudness_model(26));
    EXPECT_EQ(session.mfeGetFrame(560), 2);
    EXPECT_EQ(session.mfeGetSamplespot(1), 560);
    Samples sent;
    for (unsigned i = 0; i < 40; ++i) {
        const Samples chunk = noise(1 + i * 37 % 1999, 30000, i);
        ASSERT_EQ(send(session, chunk), 0);
        sent.insert(sent.end(), chunk.begin(), chunk.end());
        const int ring = session._m_n_ring_samples8k, end = session._m_n_samples_8k;
        const int count = static_cast<int>(sent.size());
        ASSERT_EQ(end, count / 80 * 40);
        ASSERT_EQ(session._m_n_samples_in, 2 * end);
        ASSERT_EQ(session._m_n_decim_rest, count % 80);
        for (int p = std::max(0, end - ring / 2); p < end; ++p) {
            ASSERT_EQ(session._m_p_data8k[p % ring], sent[2 * static_cast<std::size_t>(p)]);
        }
    }
    ASSERT_GT(session._m_n_samples_8k, session._m_n_ring_samples8k);
}

TEST(Audio, TheNewestSamplesFitTheBuffer) {
    CMFE session;
    session.mfeSetParam(9, 0);  // a ring of 8000 samples
    session.mfeSetParam(13, 8000);
    session.mfeSetParam(12, 0);
    init(session, test::loudness_model(26));
    const Samples chunk = noise(2000, 30000, 99);
    send(session, chunk);
    Samples some;
    EXPECT_EQ(printed([&] { some = take(session, 1001); }),
              "ERROR:[dnnvad/dnn_vad_audio.cpp:]iLen[4000] > iMaxLen[1001]\n");
    EXPECT_EQ(some, Samples(chunk.end() - 500, chunk.end()));
    EXPECT_TRUE(take(session, 4000).empty());
    send(session, chunk);
    EXPECT_EQ(printed([&] { EXPECT_EQ(take(session, 4000), chunk); }), "");  // just fits
    printed([&] {
        for (const int capacity : {1, 0, INT_MIN}) {
            send(session, chunk);
            EXPECT_TRUE(take(session, capacity).empty());
        }
        int bytes = 0;
        EXPECT_EQ(session.mfeGetCallbackData(nullptr, &bytes, 0), -103);
        char byte = 0;
        EXPECT_EQ(session.mfeGetCallbackData(&byte, nullptr, 1), -103);
    });
}

TEST(Audio, OutputRules) {
    CMFE session;
    session.mfeSetParam(9, 0);
    session.mfeSetParam(13, 8000);
    init(session, test::loudness_model(26));
    Samples ramp(4000);
    std::iota(ramp.begin(), ramp.end(), static_cast<short>(0));
    send(session, ramp);
    const auto handed_out = [&](int status, int last, int begin, int end) {
        session._m_n_status = status;
        session._m_n_last_status = last;
        session._m_n_out_begin = begin;
        session._m_n_out_end = end;
        return take(session, 40000);
    };
    EXPECT_EQ(handed_out(5, 1, 1000, 1010), Samples(ramp.begin() + 1000, ramp.begin() + 1010));
    EXPECT_EQ(session._m_n_out_begin, 1010);
    session._m_n_speech_end_sample = 1200;
    EXPECT_EQ(handed_out(6, 2, 1000, 1010).size(), 10U);
    EXPECT_EQ(session._m_n_out_begin, 1200);
    EXPECT_EQ(session._m_n_out_end, 1200);
    EXPECT_TRUE(handed_out(3, 1, 1000, 1010).empty());
    EXPECT_TRUE(handed_out(2, 0, 1000, 1010).empty());
    EXPECT_TRUE(handed_out(2, 6, 1000, 1010).empty());
    EXPECT_TRUE(handed_out(1, 0, 1000, 1010).empty());  // a start without a record
    EXPECT_TRUE(handed_out(1, 2, 1300, 1010).empty());  // the range ends before it begins
    const Samples out = handed_out(1, 2, -6800, 3000);  // longer than the ring
    ASSERT_EQ(out.size(), 9800U);
    EXPECT_EQ(out[0], 1200);
    EXPECT_EQ(out[9799], 2999);
}

TEST(Audio, ParametersSetTooLateStayWithinTheRings) {
    CMFE session;
    session.mfeSetParam(9, 0);
    session.mfeSetParam(12, 0);
    init(session, test::loudness_model(26));
    session.mfeSetParam(5, 1e6F);
    ASSERT_EQ(session.mfeSetParam(9, 400000), 0);
    for (const int rate : {16000, 8000}) {
        ASSERT_EQ(session.mfeSetParam(13, static_cast<float>(rate)), 0);
        EXPECT_EQ(session._m_n_max_data_len, 5001 * rate / 100);
        EXPECT_EQ(session._m_p_data_feed, rate == 8000 ? session._m_p_data : session._m_p_data8k);
        EXPECT_EQ(send(session, noise(200000, 100)), 0);
        EXPECT_EQ(session.mfeDNNDetect(), 0);
        EXPECT_EQ(take(session, 400000).size(), 200000U);
        const int cur = session._m_n_cur_frame;
        EXPECT_EQ(session.mfeIsSil(cur - 99, cur), 0);
        EXPECT_EQ(session.mfeIsSil(cur - 100, cur), -109);
    }
}

}  // namespace
