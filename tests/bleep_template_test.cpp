// The bundled models with their templates of the bundled prompt, through whole sessions: the prompt
// does not count as the user's speech, a first word does.
#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

#include "dnnvad/dnn_vad.h"
#include "test_support.h"
#include "tests/source_files.h"

namespace {

using namespace tz_dnnvad;
using test::read_wav;
using test::source;
using Samples = std::vector<short>;

// A model, its template and prompt, and a recording from which quiet and speech are cut (seconds).
struct Bundle {
    int rate;
    std::string size, recording;
    std::array<double, 2> quiet, command, word;
};

void PrintTo(const Bundle& bundle, std::ostream* out) { *out << bundle.size; }

const Bundle kBundles[] = {
    {8000, "8k", "samples/roadsigns-8k.wav", {4.0, 5.5}, {1.1, 3.9}, {1.1, 1.8}},
    {16000, "16k", "samples/stream-16k.wav", {9.0, 10.5}, {1.5, 3.5}, {1.5, 2.1}},
};

struct Heard {
    std::vector<double> ends;   // when the status became 6, seconds
    bool waited_again = false;  // status 0 after speech
    std::vector<_VADINFO_> segments;
};

class Prompt : public testing::TestWithParam<Bundle> {
protected:
    void SetUp() override {
        if (!std::filesystem::exists(model_)) {
            GTEST_SKIP() << model_ << " is not there";
        }
        recording_ = read_wav(source(bundle_.recording));
        append(bundle_.quiet, 0.2);
        const Samples prompt = read_wav(source("samples/prompt-" + bundle_.size + ".wav"));
        stream_.insert(stream_.end(), prompt.begin(), prompt.end());
        append(bundle_.quiet);
        command_ = seconds();
        append(bundle_.command);
        append(bundle_.quiet);
    }

    void append(const std::array<double, 2>& piece, double longest = 60.0) {
        const double end = std::min(piece[1], piece[0] + longest);
        stream_.insert(stream_.end(), recording_.begin() + at(piece[0]),
                       recording_.begin() + at(end));
    }

    std::ptrdiff_t at(double time) const { return std::lround(time * bundle_.rate); }
    double seconds() const { return static_cast<double>(stream_.size()) / bundle_.rate; }

    Heard listen(const char* bleep_template, float bleep_detection = 1.0F) const {
        Heard heard;
        test::printed([&] {
            CMFE session;
            session.mfeSetParam(13, static_cast<float>(bundle_.rate));
            session.mfeSetParam(26, bleep_detection);
            ASSERT_EQ(session.mfeInit_load_model(model_.c_str(), bleep_template), 0);
            const int shift = session._m_n_frame_shift;
            int status = 0;
            for (std::size_t i = 0; i + shift <= stream_.size(); i += shift) {
                const int before = status;
                session.mfeSendData(stream_.data() + i, shift);
                status = session.mfeDNNDetect();
                heard.waited_again |= before != 0 && status == 0;
                if (before != 6 && status == 6) {
                    heard.ends.push_back(static_cast<double>(i) / bundle_.rate);
                }
            }
            heard.segments = session._m_v_segments;
        });
        return heard;
    }

    const Bundle bundle_ = GetParam();
    const std::string model_ = source("models/vad" + bundle_.size + ".bin");
    const std::string template_ = source("models/bleep" + bundle_.size + ".txt");
    Samples recording_, stream_;
    double command_ = 0.0;  // where it begins in the stream, seconds
};

TEST_P(Prompt, IsNotTakenForTheCommand) {
    const Heard heard = listen(template_.c_str());
    ASSERT_EQ(heard.ends.size(), 1U);
    EXPECT_GT(heard.ends[0], command_);
    EXPECT_TRUE(heard.waited_again);
    ASSERT_EQ(heard.segments.size(), 2U);
    EXPECT_LT(0.01 * heard.segments[0].last_speech, command_);
    EXPECT_NEAR(0.01 * heard.segments[1].speech_start, command_, 0.4);
}

TEST_P(Prompt, EndsAnUtteranceOfItsOwnWithoutDetection) {
    for (const Heard& heard : {listen(nullptr), listen(template_.c_str(), 0.0F)}) {
        ASSERT_FALSE(heard.ends.empty());
        EXPECT_LT(heard.ends[0], command_);
        EXPECT_FALSE(heard.waited_again);
    }
}

TEST_P(Prompt, IsNotHeardInAFirstWord) {
    stream_.clear();
    append(bundle_.quiet, 0.2);
    append(bundle_.word);
    append(bundle_.quiet);
    const Heard heard = listen(template_.c_str());
    EXPECT_EQ(heard.ends.size(), 1U);
    EXPECT_FALSE(heard.waited_again);
    // Short and early enough for the detector to be asked.
    ASSERT_EQ(heard.segments.size(), 1U);
    EXPECT_LT(heard.segments[0].last_speech, 120);
    EXPECT_GT(heard.segments[0].last_speech - heard.segments[0].speech_start, 15);
}

INSTANTIATE_TEST_SUITE_P(Bundled, Prompt, testing::ValuesIn(kBundles),
                         [](const auto& info) { return info.param.size; });

}  // namespace
