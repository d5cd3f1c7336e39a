// dnnvad record-bleep end to end: the template made from a prompt's recording keeps it from counting.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <vector>

#include "tests/run_program.h"
#include "tests/temp_file.h"

namespace {

using Samples = std::vector<short>;
using test::read_wav;

std::string bytes(const Samples& samples) {
    return {reinterpret_cast<const char*>(samples.data()), 2 * samples.size()};
}

// A prompt's rate, and a recording from which quiet and a command are cut (seconds).
struct Case {
    int rate;
    std::string size, recording;
    double quiet, begin, end;
};

class RecordBleep : public testing::TestWithParam<Case> {};

TEST_P(RecordBleep, LeavesTheCommandAlone) {
    const Case& c = GetParam();
    const std::string prompt = test::source("samples/prompt-" + c.size + ".wav");
    const test::TempFile made("");
    const std::string learn = "dnnvad record-bleep --renderings 60 " + prompt + " -o " +
                              made.path() + " --speech " +
                              test::source("samples/roadsigns-8k.wav") + " " +
                              test::source("samples/stream-16k.wav") + " 2>/dev/null";
    const test::Result learnt = test::run(learn);
    ASSERT_EQ(learnt.status, 0);
    double missed = -1, taken = -1;
    std::sscanf(learnt.output.c_str() + learnt.output.find("unseen renderings"),
                "unseen renderings %lf %% of %*d prompts missed %lf", &missed, &taken);
    EXPECT_TRUE(missed >= 0 && missed <= 10 && taken >= 0 && taken <= 10) << learnt.output;

    const Samples recording = read_wav(test::source(c.recording)), sound = read_wav(prompt);
    const auto at = [&](double time) { return recording.begin() + std::lround(time * c.rate); };
    Samples stream(at(c.quiet), at(c.quiet + 0.2));
    stream.insert(stream.end(), sound.begin(), sound.end());
    stream.insert(stream.end(), at(c.quiet), at(c.quiet + 1.5));
    const double command = static_cast<double>(stream.size()) / c.rate;
    stream.insert(stream.end(), at(c.begin), at(c.end));
    stream.insert(stream.end(), at(c.quiet), at(c.quiet + 1.5));
    const test::TempFile raw(bytes(stream));
    const auto first_speech = [&](const std::string& options) {
        std::istringstream rows(test::run("dnnvad detect -f csv --raw " + std::to_string(c.rate) +
                                          " " + options + " " + raw.path())
                                    .output);
        std::vector<double> found;
        std::string row;
        for (std::getline(rows, row); std::getline(rows, row);) {
            double time = -1;
            std::sscanf(row.c_str() + row.find(','), ",%*f,%*f,%lf", &time);
            found.push_back(time);
        }
        return found;
    };
    const std::vector<double> without = first_speech("");
    ASSERT_EQ(without.size(), 2U);
    EXPECT_LT(without[0], command - 1.5);
    const std::string bundled = test::source("models/bleep" + c.size + ".txt");
    for (const std::string& bleep : {std::string(made.path()), bundled}) {
        const std::vector<double> with = first_speech("--bleep " + bleep);
        ASSERT_EQ(with.size(), 1U) << bleep;
        EXPECT_NEAR(with[0], command, 0.4);
    }
    EXPECT_EQ(test::run("dnnvad info " + std::string(made.path())).status, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Bundled, RecordBleep,
    testing::Values(Case{8000, "8k", "samples/roadsigns-8k.wav", 4.0, 1.1, 3.9},
                    Case{16000, "16k", "samples/stream-16k.wav", 9.0, 1.5, 3.5}),
    [](const auto& info) { return info.param.size; });

TEST(RecordBleepRefuses, WhatNoTemplateCanHelp) {
    const auto learn = [](const std::string& prompt, const std::string& speech) {
        const test::TempFile out("");
        std::filesystem::remove(out.path());
        const test::Result result =
            test::run("dnnvad record-bleep --renderings 30 " + prompt + " -o " + out.path() +
                      " --speech " + speech + " 2>&1");
        EXPECT_EQ(result.status, 1) << result.output;
        EXPECT_FALSE(std::filesystem::exists(out.path()));
        return result.output;
    };
    const std::string prompt = test::source("samples/prompt-8k.wav");
    const std::string speech = test::source("samples/roadsigns-8k.wav");
    EXPECT_NE(learn(speech, speech).find("a prompt has 0.1 to 1.15 s"), std::string::npos);
    EXPECT_NE(learn(prompt, prompt).find("too little"), std::string::npos);
    // A tone of one pitch, which the network does not take for speech, as a WAV file.
    std::string tone = test::read_file(prompt).substr(0, 44);
    Samples samples(3200);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        samples[i] = static_cast<short>(8000 * std::sin(2.4 * static_cast<double>(i)));
    }
    const unsigned size = static_cast<unsigned>(2 * samples.size());
    std::memcpy(&tone[40], &size, 4);
    const test::TempFile beep(tone + bytes(samples));
    EXPECT_NE(learn(beep.path(), speech).find("no template is needed"), std::string::npos);
}

}  // namespace
