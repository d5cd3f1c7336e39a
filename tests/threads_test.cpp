// Sessions in different threads do not disturb each other.
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "dnnvad/dnn_vad.h"
#include "model_writer.h"
#include "test_support.h"

namespace {

using tz_dnnvad::CMFE;

// Everything that a session of `model` answers about a stream of its own, life included.
std::string stream(const char* model, bool wide, unsigned seed) {
    CMFE session;
    session.mfeSetParam(23, 0.1F);
    session.mfeSetParam(24, 0.1F);
    session.mfeSetParam(25, 1);
    EXPECT_EQ(session.mfeInit(model), 0);
    std::string trace;
    std::mt19937 generator(seed);
    const unsigned shift = wide ? 160 : 80;
    for (unsigned f = 0; f < 300; ++f) {
        const unsigned level = f / 60 % 2 == 1 ? 8000 + seed : 9;
        std::vector<short> chunk(shift);
        for (short& sample : chunk) {
            sample = static_cast<short>(static_cast<int>(generator() % (2 * level + 1)) -
                                        static_cast<int>(level));
        }
        session.mfeSendData(chunk.data(), static_cast<int>(shift));
        trace += std::to_string(session.mfeDNNDetect());
        for (int k = 0; k < session._m_n_nn_dim; ++k) {
            trace += " " + std::to_string(session._m_p_dst_nn[k]);
        }
    }
    for (const auto& segment : session._m_v_segments) {
        trace += " " + std::to_string(segment.start) + "-" + std::to_string(segment.end);
    }
    return trace;
}

TEST(Threads, FourSessionsAtOnceEqualFourInARow) {
    const test::TempFile narrow(test::loudness_model(26).bytes());
    const test::TempFile wide(test::loudness_model(40).bytes());
    const auto run = [&](unsigned i) {
        return stream(i % 2 == 1 ? wide.path() : narrow.path(), i % 2 == 1, i);
    };
    std::vector<std::string> at_once(4), in_a_row;
    testing::internal::CaptureStdout();
    // First, so that whatever is made once per process is made by all of them together.
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] { at_once[i] = run(i); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (unsigned i = 0; i < 4; ++i) {
        in_a_row.push_back(run(i));
    }
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(at_once, in_a_row);
    for (const std::string& trace : in_a_row) {
        EXPECT_NE(trace.find("-"), std::string::npos) << "no speech found";
    }
    EXPECT_NE(in_a_row[0], in_a_row[2]);
}

}  // namespace
