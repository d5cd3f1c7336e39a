// dnnvad live on ALSA devices that play recordings: libasound's own "file" over its "null", which
// delivers as fast as one reads and is silent for ever once the recording is over.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <vector>

#include "tests/run_program.h"
#include "tests/temp_file.h"

namespace {

using test::json_lines;
using test::source;
using Json = nlohmann::json;

constexpr std::size_t kSecond = 32000;  // bytes at 16 kHz

std::string samples_of(const std::string& recording) {
    return test::read_file(source("samples/" + recording + ".wav")).substr(44);
}

// A folder with devices: "mic" plays the file mic.raw, "silent" nothing, "wide" has two channels and
// cannot do with one.
class Live : public testing::Test {
protected:
    Live() {
        put("alsa",
            "pcm.silent { type null }\n"
            "pcm.mic { type file slave.pcm silent file /dev/null infile mic.raw"
            " hint { show on description \"Test\" } }\n"
            "pcm.wide { type multi slaves.a { pcm silent channels 2 }"
            " bindings { 0 { slave a channel 0 } 1 { slave a channel 1 } } }\n"
            "pcm.plug { @args [ SLAVE ] @args.SLAVE { type string } type plug slave.pcm $SLAVE "
            "}\n");
        put("mic.raw", samples_of("stream-16k"));
    }
    void put(const std::string& name, const std::string& content) const {
        std::ofstream(folder_.path() + "/" + name, std::ios::binary) << content;
    }
    std::string read(const std::string& name) const {
        return test::read_file(folder_.path() + "/" + name);
    }
    test::Result run(const std::string& command) const {
        return test::run("cd " + folder_.path() + "; export ALSA_CONFIG_PATH=$PWD/alsa s=" +
                         source("samples") + " m=" + source("models") + "; " + command);
    }
    const test::TempDir folder_;
};

TEST_F(Live, HearsWhatDetectFinds) {
    for (const auto& [recording, rate] :
         {std::pair("roadsigns-8k", "8000"), {"stream-16k", "16000"}}) {
        put("mic.raw", samples_of(recording));
        const test::Result live =
            run(std::string("dnnvad live -D mic -f json --seconds 21 2>&1 --rate ") + rate);
        EXPECT_EQ(live.status, 0);
        const auto began = json_lines(live.output, "began"),
                   ended = json_lines(live.output, "ended");
        const auto expected = json_lines(
            run(std::string("dnnvad detect -f json $s/") + recording + ".wav").output, "utterance");
        ASSERT_EQ(began.size(), expected.size());
        ASSERT_EQ(ended.size(), expected.size());
        for (std::size_t k = 0; k < expected.size(); ++k) {
            Json utterance = expected[k];
            utterance.erase("file");
            utterance.update({{"type", "ended"},
                              {"time", utterance["decided"]},
                              {"latency_ms", ended[k]["latency_ms"]}});
            EXPECT_EQ(ended[k], utterance);
            EXPECT_EQ(began[k]["first_speech"], utterance["first_speech"]);
            EXPECT_LT(began[k]["latency_ms"], 300);
        }
        EXPECT_LE(json_lines(live.output, "time-out").size(), ended.size() + 1);  // (one a silence)
    }
}

// What is recorded is, sample for sample, what detect cuts; the prompt that a device plays is left out.
TEST_F(Live, OnceRecordsUntilOneStopsTalking) {
    const test::Result result =
        run("dnnvad detect --cut . $s/stream-16k.wav >detected; "
            "dnnvad live -D mic --once --cut cut 2>&1 >once.wav");
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.output.find("speech began at 1."), std::string::npos) << result.output;
    const std::size_t length = read("once.wav").size();
    EXPECT_GT(length, 7 * kSecond);
    EXPECT_EQ(run("cmp once.wav stream-16k-001.wav && cmp once.wav cut/*-001.wav").status, 0);

    const std::string prompt = samples_of("prompt-16k"),
                      once = "dnnvad live -D mic --once --bleep $m/bleep16k.txt 2>told";
    put("mic.raw", prompt + std::string(kSecond / 2, '\0') + samples_of("stream-16k"));
    const test::Result after = run(once);
    EXPECT_EQ(after.status, 0);
    EXPECT_NE(read("told").find("forgotten: the prompt"), std::string::npos);
    EXPECT_LT(after.output.size() - length + kSecond / 10, kSecond / 5);
    put("mic.raw", prompt);
    const test::Result alone = run(once);
    EXPECT_EQ(alone.status, 1);
    EXPECT_EQ(alone.output, "");
}

// The device is a pipe with half an utterance in it, from which nothing more comes.
TEST_F(Live, KeepsTheUtteranceInWhichItIsStopped) {
    put("half", samples_of("stream-16k").substr(0, 5 * kSecond));
    for (const std::string signal : {"INT", "TERM"}) {
        const test::Result result =
            run("rm mic.raw; mkfifo mic.raw; (exec " DNNVAD_PROGRAM
                " live -D mic -f json --cut cut >out) & exec 3>mic.raw; "
                "dd bs=3200 <half >&3 2>/dev/null; "
                "until grep -q began out; do sleep 0.05; done; sleep 0.2; kill -s " +
                signal + " $!; exec 3>&-; wait $!; s=$?; cat out; exit $s");
        EXPECT_EQ(result.status, 0);
        const std::vector<Json> ended = json_lines(result.output, "ended");
        ASSERT_EQ(ended.size(), 1U) << result.output;
        EXPECT_EQ(ended[0]["ended_by"], "end of input");
        EXPECT_NEAR(ended[0]["last_speech"], 4, 1.3);  // (up to 2 s may have been left in the pipe)
        EXPECT_GT(read(ended[0]["cut"]).size(), 1.5 * kSecond);
    }
}

TEST_F(Live, ShowsTheStatusOnATerminalAndEventsApart) {
    const std::string shown =
        run("script -qec '" DNNVAD_PROGRAM " live -D mic --seconds 24 >out' /dev/null </dev/null")
            .output;
    for (const std::string status :
         {"not started ", "speaking ", "pause ", "time-out ", "ended "}) {
        EXPECT_NE(shown.find("(0.20/0.20), " + status), std::string::npos) << status;
    }
    EXPECT_NE(shown.find("[            ] -96 dB"), std::string::npos);  // the silence at the end
    EXPECT_EQ(run("dnnvad live -D mic --seconds 24 2>&1").output, read("out"));
}

#ifdef DNNVAD_OVERRUNS
TEST_F(Live, CountsAndSurvivesOverruns) {
    const test::Result result =
        run("LD_PRELOAD=" DNNVAD_OVERRUNS " " DNNVAD_PROGRAM " live -D mic -f json --seconds 19");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(json_lines(result.output, "ended").size(), 2U);
    EXPECT_EQ(json_lines(result.output, "stream").at(0)["overruns"], 9);
}
#endif

TEST_F(Live, SaysWhatIsWrongWithADevice) {
    const test::Result unknown = run("dnnvad live -D attic 2>&1");
    EXPECT_EQ(unknown.status, 1);
    EXPECT_EQ(unknown.output,
              "dnnvad: capture device attic: No such file or directory (live --list names the "
              "devices)\n");
    EXPECT_EQ(run("dnnvad live --list").output.rfind("mic ", 0), 0U);
    EXPECT_EQ(run("dnnvad live -D wide --seconds 1 2>&1 >/dev/null").status, 0);
    EXPECT_EQ(run("dnnvad live -D silent --seconds 1 2>/dev/null >/dev/full").status, 1);
    const test::Result silent = run("dnnvad live -D silent --once 2>/dev/null");
    EXPECT_EQ(silent.status, 1);
    EXPECT_EQ(silent.output, "");
}

}  // namespace
