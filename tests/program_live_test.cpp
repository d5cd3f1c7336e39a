// dnnvad live on ALSA devices that play recordings: libasound's own "file" over its "null", which
// delivers as fast as one reads and is silent for ever once the recording is over.
#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <vector>

#include "tests/run_program.h"
#include "tests/temp_file.h"

namespace {

using test::json_lines;
using test::read_file;
using test::source;
using Json = nlohmann::json;

constexpr std::size_t kSecond = 32000;  // bytes at 16 kHz

std::string samples_of(const std::string& recording) {
    const std::string wav = read_file(source("samples/" + recording + ".wav"));
    return wav.substr(wav.find("data") + 8);
}

// Devices: "mic" plays the samples, "silent" has none, "wide" has two channels and cannot do with one.
class Devices {
public:
    explicit Devices(const std::string& samples) : file_(samples), config_(text(file_.path())) {}
    test::Result run(const std::string& command) const {
        return test::run(std::string("export ALSA_CONFIG_PATH=") + config_.path() + "; " + command);
    }
    std::string file() const { return file_.path(); }

private:
    static std::string text(const std::string& file) {
        return "pcm.silent { type null }\n"
               "pcm.mic { type file slave.pcm silent file /dev/null infile '" +
               file +
               "'"
               " hint { show on description \"Test\" } }\n"
               "pcm.wide { type multi slaves.a { pcm silent channels 2 }"
               " bindings { 0 { slave a channel 0 } 1 { slave a channel 1 } } }\n"
               "pcm.plug { @args [ SLAVE ] @args.SLAVE { type string } type plug slave.pcm $SLAVE "
               "}\n";
    }
    test::TempFile file_, config_;
};

TEST(Live, HearsWhatWasMarkedByHand) {
    for (const auto& [recording, rate] :
         {std::pair("roadsigns-8k", "8000"), {"stream-16k", "16000"}}) {
        const std::string command = "dnnvad live -D mic -f json --seconds 21 2>&1 --rate ";
        const test::Result result = Devices(samples_of(recording)).run(command + rate);
        EXPECT_EQ(result.status, 0);
        const auto began = json_lines(result.output, "began"),
                   ended = json_lines(result.output, "ended");
        std::ifstream marks(source("samples/") + recording + ".txt");
        std::size_t count = 0;
        for (double from, to; marks >> from >> to; ++count) {
            ASSERT_LT(count, std::min(began.size(), ended.size())) << result.output;
            EXPECT_NEAR(began[count]["first_speech"], from, 0.3);
            EXPECT_NEAR(began[count]["time"], from, 0.3);
            EXPECT_NEAR(ended[count]["last_speech"], to, 0.3);
        }
        EXPECT_GT(count, 0U);
        EXPECT_EQ(ended.size(), count);
        EXPECT_LE(json_lines(result.output, "time-out").size(), count + 1);  // (one a silence)
    }
}

// What is recorded is, sample for sample, what detect cuts; the prompt that a device plays is left out.
TEST(Live, OnceRecordsUntilOneStopsTalking) {
    const std::string prompt = samples_of("prompt-16k"), speech = samples_of("stream-16k");
    const Devices devices(speech), prompting(prompt + std::string(kSecond / 2, '\0') + speech);
    const std::string folder = devices.file() + ".cut";
    const test::Result result =
        devices.run("dnnvad detect --cut " + folder + " " + source("samples/stream-16k.wav") +
                    " >/dev/null; "
                    "dnnvad live -D mic --once --cut " +
                    folder + "/live 2>&1 >" + folder + "/once.wav");
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.output.find("speech began at 1."), std::string::npos) << result.output;
    const std::string wav = read_file(folder + "/once.wav");
    EXPECT_GT(wav.size(), 7 * kSecond);
    EXPECT_TRUE(wav == read_file(folder + "/stream-16k-001.wav"));
    EXPECT_TRUE(wav == test::run("cat " + folder + "/live/*-001.wav; rm -r " + folder).output);

    const std::string once = "dnnvad live -D mic --once --bleep " + source("models/bleep16k.txt");
    const test::Result after = prompting.run(once + " 2>" + devices.file());
    EXPECT_EQ(after.status, 0);
    EXPECT_NE(read_file(devices.file()).find("forgotten: the prompt"), std::string::npos);
    EXPECT_LT(after.output.size() - wav.size() + kSecond / 10, kSecond / 5);
    const test::Result alone = Devices(prompt).run(once + " 2>/dev/null");
    EXPECT_EQ(alone.status, 1);
    EXPECT_EQ(alone.output, "");
}

// The device is a pipe with half an utterance in it, from which nothing more comes.
TEST(Live, KeepsTheUtteranceInWhichItIsStopped) {
    const test::TempFile speech(samples_of("stream-16k").substr(0, 5 * kSecond));
    for (const std::string signal : {"INT", "TERM"}) {
        const Devices devices("");
        const std::string file = devices.file(), folder = file + ".cut";
        const test::Result result =
            devices.run("f=" + file +
                        "; rm $f; mkfifo $f; "
                        "(exec " DNNVAD_PROGRAM
                        " live -D mic -f json --cut $f.cut >$f.out) & exec 3>$f; "
                        "dd bs=3200 <" +
                        speech.path() +
                        " >&3 2>/dev/null; "
                        "until grep -q began $f.out; do sleep 0.05; done; sleep 0.2; kill -s " +
                        signal +
                        " $!; "
                        "exec 3>&-; wait $!; s=$?; cat $f.out; rm $f.out; exit $s");
        EXPECT_EQ(result.status, 0);
        const std::vector<Json> ended = json_lines(result.output, "ended");
        ASSERT_EQ(ended.size(), 1U) << result.output;
        EXPECT_EQ(ended[0]["ended_by"], "end of input");
        EXPECT_NEAR(ended[0]["last_speech"], 4, 1.3);  // (up to 2 s may have been left in the pipe)
        EXPECT_GT(read_file(ended[0]["cut"]).size(), 1.5 * kSecond);
        test::run("rm -r " + folder);
    }
}

TEST(Live, ShowsTheStatusOnATerminalAndEventsApart) {
    const Devices devices(samples_of("stream-16k"));
    const std::string shown =
        devices
            .run("script -qec '" DNNVAD_PROGRAM " live -D mic --seconds 24 >" + devices.file() +
                 ".out' /dev/null </dev/null")
            .output;
    for (const char* const status :
         {"not started ", "speaking ", "pause ", "time-out ", "ended "}) {
        EXPECT_NE(shown.find(std::string("(0.20/0.20), ") + status), std::string::npos) << status;
    }
    EXPECT_NE(shown.find("[            ] -96 dB"), std::string::npos);  // the silence at the end
    EXPECT_EQ(devices.run("dnnvad live -D mic --seconds 24 2>&1").output,
              test::run("cat " + devices.file() + ".out; rm " + devices.file() + ".out").output);
}

#ifdef DNNVAD_OVERRUNS
TEST(Live, CountsAndSurvivesOverruns) {
    const std::string command =
        "LD_PRELOAD=" DNNVAD_OVERRUNS " " DNNVAD_PROGRAM " live -D mic -f json --seconds 19";
    const test::Result result = Devices(samples_of("stream-16k")).run(command);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(json_lines(result.output, "ended").size(), 2U);
    EXPECT_EQ(json_lines(result.output, "stream").at(0)["overruns"], 9);
}
#endif

TEST(Live, SaysWhatIsWrongWithADevice) {
    const Devices devices("");
    const test::Result unknown = devices.run("dnnvad live -D attic 2>&1");
    EXPECT_EQ(unknown.status, 1);
    EXPECT_EQ(unknown.output,
              "dnnvad: capture device attic: No such file or directory (live --list names the "
              "devices)\n");
    EXPECT_EQ(devices.run("dnnvad live --list").output.rfind("mic ", 0), 0U);
    EXPECT_EQ(devices.run("dnnvad live -D wide --seconds 1 2>&1 >/dev/null").status, 0);
    EXPECT_EQ(devices.run("dnnvad live -D silent --seconds 1 2>/dev/null >/dev/full").status, 1);
    const test::Result silent = devices.run("dnnvad live -D silent --once 2>/dev/null");
    EXPECT_EQ(silent.status, 1);
    EXPECT_EQ(silent.output, "");
}

}  // namespace
