// dnnvad detect as a user runs it: on the bundled recordings in every shape, and on what is none.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <vector>

#include "tests/run_program.h"
#include "tests/temp_file.h"

namespace {

using Json = nlohmann::json;
using test::read_file;
using test::read_wav;
using test::run;
using test::source;

const std::string kRoadsigns = source("samples/roadsigns-8k.wav");
const std::string kStream = source("samples/stream-16k.wav");

std::vector<Json> found(const std::string& arguments) {
    return test::json_lines(run("dnnvad detect -f json " + arguments).output, "utterance");
}

double value(const Json& utterance, const char* key) { return utterance[key]; }

// A recording in another form: `channels` copies of `samples`, each with its own gain.
void write_sound(const std::string& path, const std::vector<short>& samples, int rate, int format,
                 const std::vector<float>& gains) {
    SF_INFO info{0, rate, static_cast<int>(gains.size()), format, 0, 0};
    SNDFILE* const file = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr) << path;
    for (const short sample : samples) {
        std::vector<float> frame = gains;
        for (float& value : frame) {
            value *= static_cast<float>(sample) / 32768.0F;
        }
        ASSERT_EQ(sf_writef_float(file, frame.data(), 1), 1);
    }
    sf_close(file);
}

TEST(Detect, FindsTheUtterancesThatWereMarkedByHand) {
    for (const std::string name : {"roadsigns-8k", "stream-16k"}) {
        const std::vector<Json> utterances = found(source("samples/" + name + ".wav"));
        std::ifstream marks(source("samples/" + name + ".txt"));
        std::size_t count = 0;
        for (double from, to; marks >> from >> to; ++count) {
            ASSERT_LT(count, utterances.size());
            const Json& u = utterances[count];
            EXPECT_NEAR(u["first_speech"], from, 0.3);
            EXPECT_NEAR(u["last_speech"], to, 0.3);
            EXPECT_LE(u["start"], u["first_speech"]);
            EXPECT_GE(u["end"], u["last_speech"]);
            EXPECT_NEAR(u["duration"], value(u, "end") - value(u, "start"), 0.011);
            EXPECT_NEAR(u["decided"], value(u, "last_speech") + 0.94, 0.02);  // the pause, a frame
            EXPECT_EQ(u["ended_by"], "pause");
        }
        EXPECT_GT(count, 0U);
        EXPECT_EQ(utterances.size(), count);
    }
}

TEST(Detect, FindsTheSameWhateverTheAudioComesIn) {
    const test::TempFile flac(""), wav("");
    const std::vector<short> samples = read_wav(kRoadsigns);
    write_sound(flac.path(), samples, 8000, SF_FORMAT_FLAC | SF_FORMAT_PCM_24, {1.0F});
    write_sound(wav.path(), samples, 8000, SF_FORMAT_WAV | SF_FORMAT_FLOAT, {0.25F, 1.0F, 1.75F});
    const std::string detect = "dnnvad detect ", expected = run(detect + kRoadsigns).output;
    for (const std::string& command :
         {"cat " + kRoadsigns + " | dnnvad detect -",
          // Its header left off; the last chunk of a file may be short.
          "tail -c +45 " + kRoadsigns + " | dnnvad detect --raw 8000 -", detect + flac.path(),
          detect + wav.path(), detect + "--channel 2 " + wav.path()}) {
        EXPECT_EQ(run(command).output, expected) << command;
    }
    const test::Result missing = run(detect + "--channel 4 " + wav.path() + " 2>&1");
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.output.find("has 3 channels"), std::string::npos) << missing.output;
}

TEST(Detect, ConvertsRatesAndCountsWhatIsClipped) {
    const test::TempFile other("");
    // Played at 96 kHz, 16 kHz audio is six times too fast for speech; so every sample comes six times.
    std::vector<short> slow;
    for (const short sample : read_wav(kStream)) {
        slow.insert(slow.end(), 6, sample);
    }
    write_sound(other.path(), slow, 96000, SF_FORMAT_WAV | SF_FORMAT_PCM_24,
                std::vector<float>(8, 0.5F));
    const std::vector<Json> converted = found(other.path()), expected = found(kStream);
    ASSERT_EQ(converted.size(), expected.size());
    for (std::size_t k = 0; k < expected.size(); ++k) {
        EXPECT_NEAR(converted[k]["first_speech"], expected[k]["first_speech"], 0.1);
        EXPECT_NEAR(converted[k]["last_speech"], expected[k]["last_speech"], 0.1);
        EXPECT_NEAR(converted[k]["peak_dbfs"], value(expected[k], "peak_dbfs") - 6.0, 0.7);
    }
    write_sound(other.path(), slow, 96000, SF_FORMAT_WAV | SF_FORMAT_FLOAT, {8.0F});
    const std::string told =
        run(std::string("dnnvad detect ") + other.path() + " 2>&1 >/dev/null").output;
    EXPECT_NE(told.find("samples beyond full scale were clipped"), std::string::npos) << told;
}

TEST(Detect, WritesEveryFormat) {
    const std::string json = run("dnnvad detect -f json " + kRoadsigns).output;
    EXPECT_EQ(test::json_lines(json, "recording").size(), 1U);
    std::string table = "   start      end    first     last  duration   peak  ended by\n", rttm,
                audacity;
    std::string csv =
        "file,start,end,first_speech,last_speech,duration,decided,peak_dbfs,ended_by,"
        "under_minimum,over_maximum,cut\n";
    for (const Json& u : test::json_lines(json, "utterance")) {
        const double start = u["start"], end = u["end"], first = u["first_speech"],
                     last = u["last_speech"], duration = u["duration"], peak = u["peak_dbfs"];
        table += test::format("%8.2f %8.2f %8.2f %8.2f  %8.2f %6.1f  pause\n", start, end, first,
                              last, duration, peak);
        csv += kRoadsigns + test::format(",%.2f,%.2f,%.2f,%.2f,%.2f,%.2f,%.1f,pause,0,0,\n", start,
                                         end, first, last, duration, value(u, "decided"), peak);
        rttm += test::format("SPEAKER roadsigns-8k 1 %.3f %.3f <NA> <NA> speech <NA> <NA>\n", first,
                             last + 0.01 - first);
        audacity += test::format("%.6f\t%.6f\tspeech\n", first, last + 0.01);
    }
    EXPECT_EQ(run("dnnvad detect " + kRoadsigns).output, table);
    EXPECT_EQ(run("dnnvad detect -f csv " + kRoadsigns).output, csv);
    EXPECT_EQ(run("dnnvad detect -f rttm " + kRoadsigns).output, rttm);
    EXPECT_EQ(run("dnnvad detect -f audacity " + kRoadsigns).output, audacity);
}

TEST(Detect, WritesATextGridWhoseIntervalsTileTheRecording) {
    const test::TempFile grid("");
    run(std::string("dnnvad detect -f textgrid -o ") + grid.path() + " " + kRoadsigns);
    const std::string text = read_file(grid.path());
    const double duration = static_cast<double>(read_wav(kRoadsigns).size()) / 8000;
    const std::regex interval("xmin = (.*)\n +xmax = (.*)\n +text = \"(.*)\"");
    std::map<std::string, int> count;
    double covered = duration;
    for (std::sregex_iterator it(text.begin(), text.end(), interval), end; it != end; ++it) {
        covered = covered == duration ? 0 : covered;  // the next tier begins
        EXPECT_EQ(std::stod((*it)[1]), covered);
        EXPECT_GT(std::stod((*it)[2]), covered);
        covered = std::stod((*it)[2]);
        ++count[(*it)[3]];
    }
    EXPECT_EQ(covered, duration);
    EXPECT_EQ(count, (std::map<std::string, int>{{"", 8}, {"speech", 3}, {"pause", 3}}));
}

TEST(Detect, CutsWhatTheSessionHandsOut) {
    const test::TempDir folder;
    const std::vector<short> whole = read_wav(kStream);
    for (const std::string margin : {"", " --margin 0.2s"}) {
        const std::vector<Json> utterances =
            found("--cut " + folder.path() + "/cut " + kStream + margin);
        ASSERT_EQ(utterances.size(), 2U);
        for (const Json& u : utterances) {
            const std::vector<short> cut = read_wav(u["cut"]);
            const std::ptrdiff_t begin = std::lround(value(u, "start") * 16000);
            EXPECT_TRUE(std::equal(cut.begin(), cut.end(), whole.begin() + begin));
            // It ends where the last frame does, 15 ms after that frame's begin plus shift.
            EXPECT_NEAR(static_cast<double>(cut.size()) / 16000, u["duration"], 0.03);
            if (!margin.empty()) {
                EXPECT_NEAR(value(u, "first_speech") - value(u, "start"), 0.2, 1e-6);
            }
        }
    }
}

// Keys that the file leaves out keep their defaults: a start margin of 0 comes only from its key.
TEST(Detect, TakesParametersFromFileAndByName) {
    const test::TempFile config(
        "# margins\nPARAM_START_BACK_FRAME:0\nPARAM_END_BACK_FRAME: 5\n"
        "PARAM_MAX_SP_PAUSE: none\n");
    const struct {
        const char* settings;
        double before, after;
    } margins[] = {{"", 0, 0.05},
                   {" --set START_back_frame=50ms --set end_back_frame=7", 0.05, 0.07}};
    for (const auto& [settings, before, after] : margins) {
        const auto utterances =
            found(std::string("--config ") + config.path() + settings + " " + kRoadsigns);
        ASSERT_EQ(utterances.size(), 3U);
        for (const Json& u : utterances) {
            EXPECT_NEAR(value(u, "first_speech") - value(u, "start"), before, 1e-6);
            EXPECT_NEAR(value(u, "end") - value(u, "last_speech"), after, 1e-6);
        }
    }
    // A pause limit of 200 ms parts the second utterance of the stream, whose pauses are longer.
    EXPECT_GT(found("--set max_sp_pause=0.2s " + kStream).size(), found(kStream).size());
    const test::TempFile odd(
        "PARAM_MAX_SP_PAUSE:60\n\n# nothing\nPARAM_BLEEP_DETECT:1 s\nmax_sp_pause=3\n");
    const std::pair<std::string, int> doubtful[] = {{std::string("config ") + odd.path(), 2},
                                                    {"set max_sp_pause=2s", 1},
                                                    {"set detect_start=4s", 1},
                                                    {"set dnn_sil_threshold=0.3", 1},
                                                    {"set sample_rate=8000", 1},
                                                    {"set buffer_length=8000 --margin 2s", 1}};
    for (const auto& [settings, warnings] : doubtful) {
        const std::string told =
            run("dnnvad detect --" + settings + " " + kStream + " 2>&1 >/dev/null").output;
        EXPECT_EQ(told.rfind("dnnvad: warning: ", 0), 0U) << settings;
        EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), warnings) << told;
    }
}

// Speech again at the very moment at which the session is reset after its time-out: the margin before
// it is there all the same, and nothing is reported twice.
TEST(Detect, ListensOnAfterTimeOuts) {
    const std::vector<short> all = read_wav(kRoadsigns);
    const std::vector<Json> utterances = found(kRoadsigns);
    const auto at = [&](const char* key) {
        return all.begin() + static_cast<std::ptrdiff_t>(value(utterances.at(0), key) * 8000);
    };
    const std::vector<short> word(at("start"), at("end"));
    const test::TempFile made("");
    for (const double silence : {0.3, 0.5, 0.7, 4.4, 9.0}) {
        std::vector<short> stream = word;
        stream.resize(stream.size() + static_cast<std::size_t>(silence * 8000));
        const double second = static_cast<double>(stream.size()) / 8000;
        stream.insert(stream.end(), word.begin(), word.end());
        stream.resize(stream.size() + 16000);
        write_sound(made.path(), stream, 8000, SF_FORMAT_WAV | SF_FORMAT_PCM_16, {1.0F});
        const std::vector<Json> twice = found(made.path());
        ASSERT_EQ(twice.size(), 2U) << silence;
        const double first = twice[1]["first_speech"];
        EXPECT_NEAR(first - value(twice[0], "first_speech"), second, 0.1) << silence;
        EXPECT_NEAR(first - value(twice[1], "start"), 0.4, 0.011) << silence;
    }
    // However long the margin, what was heard again is not an utterance again.
    const std::vector<Json> wide = found("--margin 3s " + kRoadsigns);
    ASSERT_EQ(wide.size(), utterances.size());
    for (std::size_t k = 0; k < wide.size(); ++k) {
        EXPECT_NEAR(wide[k]["first_speech"], utterances[k]["first_speech"], 0.05);
    }
}

TEST(Detect, WritesOverNoRecording) {
    const test::TempDir folder;
    const std::string copy = folder.path() + "/a.wav", content = read_file(kRoadsigns);
    std::ofstream(copy, std::ios::binary) << content;
    for (const std::string command :
         {"detect -o a.wav a.wav", "detect --cut . a.wav", "detect -o x/ a.wav ./a.wav",
          "tune --labels $s -o a.wav a.wav"}) {
        EXPECT_EQ(run("cd " + folder.path() + "; s=" + source("samples") + "; dnnvad " + command +
                      " 2>&1")
                      .status,
                  2)
            << command;
    }
    EXPECT_EQ(read_file(copy), content);
}

TEST(Detect, GoesThroughSeveralRecordings) {
    const test::TempDir folder;
    const std::string both = kRoadsigns + " " + kStream + " ",
                      errors = "2>" + folder.path() + "/errors";
    const test::Result mixed =
        run("dnnvad detect -f csv " + source("README.md") + " " + both + errors);
    EXPECT_EQ(mixed.status, 1);
    EXPECT_EQ(std::count(mixed.output.begin(), mixed.output.end(), '\n'), 1 + 3 + 2);
    const std::string told = read_file(folder.path() + "/errors");
    EXPECT_NE(told.find("README.md"), std::string::npos);
    EXPECT_NE(told.find("3 recordings, 5 utterances, 1 failed"), std::string::npos) << told;

    run("dnnvad detect -f textgrid -o " + folder.path() + " " + source("README.md") + " " + both +
        errors);
    EXPECT_EQ(run("ls " + folder.path()).output,
              "errors\nroadsigns-8k.TextGrid\nstream-16k.TextGrid\n");
    EXPECT_EQ(run("dnnvad detect -f audacity " + both + errors).status, 2);
}

TEST(Detect, KeepsTheLibrarysLinesApart) {
    const test::TempFile log("");
    const std::string plain = run("dnnvad detect " + kRoadsigns).output,
                      command = "dnnvad detect --set debug_log=1 " + kRoadsigns + " 2>&1";
    EXPECT_EQ(run(command + " --library-log " + log.path()).output, plain);
    EXPECT_NE(read_file(log.path()).find("DEBUG:[dnnvad/"), std::string::npos);
    EXPECT_EQ(run(command).output, plain);
}

// Each in one line, at least where it is the program's own.
TEST(Detect, SaysWhatIsWrong) {
    const test::TempDir folder;
    const std::string where = "cd " + folder.path() + "; t=" + source("LICENSE") +
                              " r=" + kRoadsigns + " m=" + source("models") + "; { dnnvad ";
    for (const std::string arguments :
         {"", "detect", "detct x", "--nonsense $r", "detect -f x $r", "detect --set nothing=1 $r",
          "detect --set max_sp_pause=soon $r", "detect --set dnn_speech_threshold=1s $r",
          "detect --set sample_rate=44100 $r", "detect --margin 0.2 $r"}) {
        const test::Result result = run(where + arguments + "; } 2>&1 >/dev/null");
        EXPECT_EQ(result.status, 2) << arguments;
        EXPECT_EQ(result.output.rfind("dnnvad: ", 0), 0U) << arguments << result.output;
    }
    EXPECT_EQ(run("dnnvad --help").status, 0);
    for (const std::string arguments :
         {"$t", "/nonexistent.wav", "/", "--model $t $r", "--bleep $t $r",
          "--bleep $m/bleep16k.txt $r", "--config /nonexistent $r", "-o /nonexistent/x $r",
          "--cut /dev/null/x $r", "$r -o out --model $t", "$r >/dev/full"}) {
        const test::Result result = run(where + "detect " + arguments + "; } 2>&1 >/dev/null");
        EXPECT_EQ(result.status, 1) << arguments;
        EXPECT_EQ(result.output.rfind("dnnvad: ", 0), 0U) << arguments << result.output;
        EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1) << result.output;
    }
    EXPECT_EQ(run("ls " + folder.path()).output, "");
}

}  // namespace
