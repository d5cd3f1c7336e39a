// Sessions in different threads do not disturb each other, and a session may change hands.
#include <cstring>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "dnnvad/dnn_vad.h"
#include "test_support.h"

namespace {

using tz_dnnvad::CMFE;

struct Setup {
    const char *model, *bleep;
    int rate;
    std::vector<std::pair<int, float>> parameters;
};
const Setup kSetups[] = {
    {"models/vad8k.bin", "models/bleep8k.txt", 8000, {}},
    {"models/vad16k.bin", "models/bleep16k.txt", 16000, {}},
    {"models/vad8k.bin", nullptr, 16000, {{23, 0.3F}, {25, 1}}},  // input halved, energy gate
    {"models/vad16k.bin", nullptr, 16000, {{3, 30}, {12, 0}}},
    {"tests/golden/synth8k.bin", "tests/golden/bleep8k.txt", 8000, {{2, 100}, {8, 9}}},
    {"tests/golden/synth16k.bin", "tests/golden/bleep16k.txt", 16000, {{25, 1}}},
    {"models/vad8k.bin", "models/bleep8k.txt", 8000, {{9, 9000}, {6, 5}, {25, 1}}},
    {"models/vad16k.bin", "models/bleep16k.txt", 16000, {{11, 0}}},
};
constexpr std::size_t kSessions = std::size(kSetups);

// The prompt, then people who speak: five seconds.
std::string sound(int rate) {
    std::string samples;
    for (const char* const name : {rate == 8000 ? "prompt-8k" : "prompt-16k",
                                   rate == 8000 ? "roadsigns-8k" : "stream-16k"}) {
        std::ifstream file(DNNVAD_SOURCE_DIR "/samples/" + std::string(name) + ".wav",
                           std::ios::binary);
        samples.append(std::istreambuf_iterator<char>(file), {});
    }
    samples.resize(static_cast<std::size_t>(10 * rate));
    return samples;
}

void create(const Setup& setup, std::unique_ptr<CMFE>& session) {
    session = std::make_unique<CMFE>();
    session->mfeSetParam(13, static_cast<float>(setup.rate));
    for (const auto& [id, value] : setup.parameters) {
        session->mfeSetParam(id, value);
    }
    const std::string folder = DNNVAD_SOURCE_DIR "/", model = folder + setup.model;
    const std::string bleep = setup.bleep != nullptr ? folder + setup.bleep : "";
    EXPECT_EQ(session->mfeInit_load_model(model.c_str(), bleep.c_str()), 0);
}

// Everything that a session answers about its sound: states, scores, audio, statuses and segments.
void use(const Setup& setup, CMFE& session, std::string& answers) {
    const std::string samples = sound(setup.rate);
    const auto bytes = static_cast<std::size_t>(setup.rate / 50);  // of 10 ms
    std::vector<short> chunk(bytes / 2);
    std::vector<char> audio(1 << 18);
    for (std::size_t at = 0; at + bytes <= samples.size(); at += bytes) {
        std::memcpy(chunk.data(), &samples[at], bytes);
        session.mfeSendData(chunk.data(), static_cast<int>(chunk.size()));
        answers += std::to_string(session.mfeDNNDetect());
        const int ring = session._m_n_buf_frames, latest = session._m_n_cur_frame + ring - 1;
        answers += static_cast<char>(session._m_p_frame_state[latest % ring]);
        answers.append(reinterpret_cast<char*>(session._m_p_dst_nn), 9 * sizeof(float));
        int length = 0;
        session.mfeGetCallbackData(audio.data(), &length, static_cast<int>(audio.size()));
        answers.append(audio.data(), static_cast<std::size_t>(length));
    }
    for (const auto& segment : session._m_v_segments) {
        answers += " " + std::to_string(segment.start) + "-" + std::to_string(segment.end);
    }
}

// What all sessions answer; each step of a session's life is a thread's of its own.
std::vector<std::string> all_answers(bool at_once) {
    std::vector<std::unique_ptr<CMFE>> sessions(kSessions);
    std::vector<std::string> answers(kSessions);
    const auto each = [&](const std::function<void(std::size_t)>& work) {
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < kSessions; ++i) {
            threads.emplace_back(work, i);
            for (; !threads.empty() && (!at_once || i == kSessions - 1); threads.pop_back()) {
                threads.back().join();
            }
        }
    };
    answers.push_back(test::printed([&] {
        each([&](std::size_t i) { create(kSetups[i], sessions[i]); });
        each([&](std::size_t i) { use(kSetups[i], *sessions[i], answers[i]); });
        each([&](std::size_t i) { sessions[i].reset(); });
    }));
    return answers;
}

TEST(Threads, EightSessionsAtOnceEqualEightInARow) {
    // First, so that whatever is made once per process is made by all of them together.
    const std::vector<std::string> at_once = all_answers(true), in_a_row = all_answers(false);
    EXPECT_NE(at_once.back().find("we have detect didi"), std::string::npos);
    EXPECT_EQ(at_once.back().size(), in_a_row.back().size());  // in another order
    for (std::size_t i = 0; i < kSessions; ++i) {
        EXPECT_TRUE(at_once[i] == in_a_row[i]) << i;
        EXPECT_TRUE(i == 7 || at_once[i].rfind('-') + 9 > at_once[i].size()) << "no speech found";
        EXPECT_NE(at_once[i], at_once[(i + 1) % kSessions]);
    }
}

}  // namespace
