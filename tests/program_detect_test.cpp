// dnnvad detect as a user runs it: on the bundled recordings in every shape, and on what is none.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <vector>

#include "tests/run_program.h"
#include "tests/temp_file.h"

namespace {

using test::read_file;
using test::read_wav;
using test::run;
using test::source;

const std::string kRoadsigns = source("samples/roadsigns-8k.wav");
const std::string kStream = source("samples/stream-16k.wav");
constexpr char kHeading[] = "   start      end    first     last  duration   peak  ended by";

struct Line {
    double start, end, first, last, duration, peak;
    std::string reason;
};

// The table without its heading; a line of any other form fails the test.
std::vector<Line> table(const std::string& output) {
    std::istringstream lines(output);
    std::string text;
    std::getline(lines, text);
    EXPECT_EQ(text, kHeading);
    std::vector<Line> rows;
    while (std::getline(lines, text)) {
        std::istringstream fields(text);
        Line row;
        fields >> row.start >> row.end >> row.first >> row.last >> row.duration >> row.peak;
        EXPECT_TRUE(fields) << text;
        std::getline(fields >> std::ws, row.reason);
        rows.push_back(row);
    }
    return rows;
}

std::vector<nlohmann::json> utterances(const std::string& output) {
    EXPECT_EQ(test::json_lines(output, "recording").size(), 1U);
    return test::json_lines(output, "utterance");
}

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

class Recording : public testing::TestWithParam<const char*> {};

TEST_P(Recording, HasTheUtterancesThatWereMarkedByHand) {
    const std::string base = source("samples/") + GetParam();
    const test::Result result = run("dnnvad detect " + base + ".wav");
    ASSERT_EQ(result.status, 0);
    const std::vector<Line> rows = table(result.output);

    std::ifstream marks(base + ".txt");
    std::size_t count = 0;
    for (double from, to; marks >> from >> to; ++count) {
        ASSERT_LT(count, rows.size()) << result.output;
        EXPECT_NEAR(rows[count].first, from, 0.3);
        EXPECT_NEAR(rows[count].last, to, 0.3);
        EXPECT_LE(rows[count].start, rows[count].first);
        EXPECT_GE(rows[count].end, rows[count].last);
        EXPECT_NEAR(rows[count].duration, rows[count].end - rows[count].start, 0.011);
        EXPECT_EQ(rows[count].reason, "pause");
    }
    EXPECT_GT(count, 0U);
    EXPECT_EQ(rows.size(), count) << result.output;
}

INSTANTIATE_TEST_SUITE_P(Samples, Recording, testing::Values("roadsigns-8k", "stream-16k"));

TEST(Detect, FindsTheSameWhateverTheAudioComesIn) {
    const std::string expected = run("dnnvad detect " + kRoadsigns).output;
    const std::vector<short> samples = read_wav(kRoadsigns);
    const test::TempFile other(""), raw("");
    EXPECT_EQ(run("cat " + kRoadsigns + " | dnnvad detect -").output, expected);
    // Its header left off; the last chunk of a file may be short.
    EXPECT_EQ(run("tail -c +45 " + kRoadsigns + " | dnnvad detect --raw 8000 -").output, expected);
    write_sound(other.path(), samples, 8000, SF_FORMAT_FLAC | SF_FORMAT_PCM_24, {1.0F});
    EXPECT_EQ(run(std::string("dnnvad detect ") + other.path()).output, expected);
    write_sound(other.path(), samples, 8000, SF_FORMAT_WAV | SF_FORMAT_FLOAT, {0.25F, 1.0F, 1.75F});
    EXPECT_EQ(run(std::string("dnnvad detect ") + other.path()).output, expected);
    EXPECT_EQ(run(std::string("dnnvad detect --channel 2 ") + other.path()).output, expected);
    const test::Result missing =
        run(std::string("dnnvad detect --channel 4 ") + other.path() + " 2>&1");
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
    const std::vector<Line> rows = table(run(std::string("dnnvad detect ") + other.path()).output);
    const std::vector<Line> expected = table(run("dnnvad detect " + kStream).output);
    ASSERT_EQ(rows.size(), expected.size());
    for (std::size_t k = 0; k < rows.size(); ++k) {
        EXPECT_NEAR(rows[k].first, expected[k].first, 0.1);
        EXPECT_NEAR(rows[k].last, expected[k].last, 0.1);
        EXPECT_NEAR(rows[k].peak, expected[k].peak - 6.0, 0.7);
    }
    write_sound(other.path(), slow, 96000, SF_FORMAT_WAV | SF_FORMAT_FLOAT, {8.0F});
    const std::string told =
        run(std::string("dnnvad detect ") + other.path() + " 2>&1 >/dev/null").output;
    EXPECT_NE(told.find("samples beyond full scale were clipped"), std::string::npos) << told;
}

TEST(Detect, WritesEveryFormat) {
    const std::vector<Line> rows = table(run("dnnvad detect " + kRoadsigns).output);
    const std::vector<nlohmann::json> json =
        utterances(run("dnnvad detect -f json " + kRoadsigns).output);
    std::istringstream csv(run("dnnvad detect -f csv " + kRoadsigns).output);
    std::istringstream rttm(run("dnnvad detect -f rttm " + kRoadsigns).output);
    std::istringstream audacity(run("dnnvad detect -f audacity " + kRoadsigns).output);
    std::string line;
    std::getline(csv, line);
    EXPECT_EQ(std::count(line.begin(), line.end(), ','), 11);
    ASSERT_EQ(json.size(), rows.size());
    for (std::size_t k = 0; k < rows.size(); ++k) {
        const Line& row = rows[k];
        EXPECT_EQ(json[k]["start"], row.start);
        EXPECT_EQ(json[k]["last_speech"], row.last);
        EXPECT_EQ(json[k]["ended_by"], row.reason);
        EXPECT_NEAR(json[k]["decided"], row.last + 0.94,
                    0.02);  // the pause, and the frame in progress
        std::getline(csv, line);
        EXPECT_EQ(line.rfind(kRoadsigns + "," + test::format("%.2f,%.2f", row.start, row.end), 0),
                  0U);
        std::getline(rttm, line);
        EXPECT_EQ(line, test::format("SPEAKER roadsigns-8k 1 %.3f %.3f <NA> <NA> speech <NA> <NA>",
                                     row.first, row.last + 0.01 - row.first));
        std::getline(audacity, line);
        EXPECT_EQ(line, test::format("%.6f\t%.6f\tspeech", row.first, row.last + 0.01));
    }
}

TEST(Detect, WritesATextGridWhoseIntervalsTileTheRecording) {
    const test::TempFile grid("");
    ASSERT_EQ(
        run(std::string("dnnvad detect -f textgrid -o ") + grid.path() + " " + kRoadsigns).status,
        0);
    std::istringstream text(read_file(grid.path()));
    double begin = -1, end = -1, duration = -1, covered = 0;
    int speech = 0, pause = 0;
    for (std::string line; std::getline(text, line);) {
        if (std::sscanf(line.c_str(), "xmax = %lf", &duration) == 1) {
            continue;
        }
        if (line.find("class = ") != std::string::npos) {
            EXPECT_TRUE(covered == 0 || covered == duration);
            covered = 0;
        }
        if (std::sscanf(line.c_str(), "            xmin = %lf", &begin) == 1 &&
            line.rfind("            ", 0) == 0) {
            EXPECT_EQ(begin, covered);
        }
        if (line.rfind("            xmax", 0) == 0 &&
            std::sscanf(line.c_str(), " xmax = %lf", &end) == 1) {
            EXPECT_GT(end, covered);
            covered = end;
        }
        speech += line == "            text = \"speech\"";
        pause += line == "            text = \"pause\"";
    }
    EXPECT_EQ(covered, duration);
    EXPECT_EQ(speech, 3);
    EXPECT_EQ(pause, 3);
}

TEST(Detect, CutsWhatTheSessionHandsOut) {
    const test::TempDir folder;
    const std::string command = "dnnvad detect -f json --cut " + folder.path() + "/cut " + kStream;
    const std::vector<short> whole = read_wav(kStream);
    for (const char* const margin : {"", " --margin 0.2s"}) {
        const std::vector<nlohmann::json> found = utterances(run(command + margin).output);
        ASSERT_EQ(found.size(), 2U);
        for (const nlohmann::json& u : found) {
            const std::vector<short> cut = read_wav(u["cut"]);
            const auto begin =
                whole.begin() + static_cast<int>(std::lround(u["start"].get<double>() * 16000));
            EXPECT_TRUE(std::equal(cut.begin(), cut.end(), begin));
            // It ends where the last frame does, 15 ms after that frame's begin plus shift.
            EXPECT_NEAR(static_cast<double>(cut.size()) / 16000, u["duration"], 0.03);
            if (*margin != '\0') {
                EXPECT_NEAR(u["first_speech"].get<double>() - u["start"].get<double>(), 0.2, 1e-6);
            }
        }
    }
}

// Keys that the file leaves out keep their defaults: a start margin of 0 comes only from its key.
TEST(Detect, TakesParametersFromFileAndByName) {
    const test::TempFile config(
        "# margins\nPARAM_START_BACK_FRAME:0\nPARAM_END_BACK_FRAME: 5\n"
        "PARAM_MAX_SP_PAUSE: none\n");
    const std::string command = std::string("dnnvad detect --config ") + config.path() + " ";
    const std::vector<Line> rows = table(run(command + kRoadsigns).output);
    ASSERT_EQ(rows.size(), 3U);
    for (const Line& row : rows) {
        EXPECT_EQ(row.start, row.first);
        EXPECT_NEAR(row.end, row.last + 0.05, 1e-6);
    }
    const std::vector<Line> named = table(
        run(command + "--set START_back_frame=50ms --set end_back_frame=7 " + kRoadsigns).output);
    ASSERT_EQ(named.size(), 3U);
    for (const Line& row : named) {
        EXPECT_NEAR(row.first - row.start, 0.05, 1e-6);
        EXPECT_NEAR(row.end, row.last + 0.07, 1e-6);
    }
    // A pause limit of 200 ms parts the second utterance of the stream, whose pauses are longer.
    const std::string stream = "dnnvad detect " + kStream;
    EXPECT_GT(table(run(stream + " --set max_sp_pause=0.2s").output).size(),
              table(run(stream).output).size());
    const test::TempFile odd(
        "PARAM_MAX_SP_PAUSE:60\n\n# nothing\nPARAM_BLEEP_DETECT:1 s\nmax_sp_pause=3\n");
    const std::string told = run("dnnvad detect --config " + std::string(odd.path()) + " " +
                                 kStream + " 2>&1 >/dev/null")
                                 .output;
    EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 2) << told;
    for (const char* const doubtful :
         {"max_sp_pause=2s", "detect_start=4s", "dnn_sil_threshold=0.3", "sample_rate=8000",
          "buffer_length=8000 --margin 2s"}) {
        const std::string odd_one = run(stream + " --set " + doubtful + " 2>&1 >/dev/null").output;
        EXPECT_NE(odd_one.find("dnnvad: warning: "), std::string::npos) << doubtful;
    }
}

// Speech again at the very moment at which the session is reset after its time-out: the margin before
// it is there all the same, and nothing is reported twice.
TEST(Detect, ListensOnAfterTimeOuts) {
    const std::vector<short> all = read_wav(kRoadsigns);
    const std::vector<Line> rows = table(run("dnnvad detect " + kRoadsigns).output);
    const auto sample = [](double seconds) { return static_cast<std::ptrdiff_t>(seconds * 8000); };
    const std::vector<short> word(all.begin() + sample(rows[0].start),
                                  all.begin() + sample(rows[0].end));
    const test::TempFile made("");
    for (const double silence : {0.3, 0.5, 0.7, 4.4, 9.0}) {
        std::vector<short> stream = word;
        stream.insert(stream.end(), static_cast<std::size_t>(sample(silence)), 0);
        stream.insert(stream.end(), word.begin(), word.end());
        stream.insert(stream.end(), 16000, 0);
        write_sound(made.path(), stream, 8000, SF_FORMAT_WAV | SF_FORMAT_PCM_16, {1.0F});
        const std::vector<Line> found =
            table(run(std::string("dnnvad detect ") + made.path()).output);
        ASSERT_EQ(found.size(), 2U) << silence;
        EXPECT_NEAR(found[1].first - found[0].first,
                    static_cast<double>(word.size()) / 8000 + silence, 0.1)
            << silence;
        EXPECT_NEAR(found[1].first - found[1].start, 0.4, 0.011) << silence;
    }
    // However long the margin, what was heard again is not an utterance again.
    const std::vector<Line> wide = table(run("dnnvad detect --margin 3s " + kRoadsigns).output);
    ASSERT_EQ(wide.size(), rows.size());
    for (std::size_t k = 0; k < rows.size(); ++k) {
        EXPECT_NEAR(wide[k].first, rows[k].first, 0.05);
    }
}

TEST(Detect, WritesOverNoRecording) {
    const test::TempDir folder;
    const std::string copy = folder.path() + "/a.wav", content = read_file(kRoadsigns);
    std::ofstream(copy, std::ios::binary) << content;
    EXPECT_EQ(run("dnnvad detect -o " + copy + " " + copy + " 2>&1").status, 2);
    EXPECT_EQ(run("cd " + folder.path() + "; dnnvad detect --cut . a.wav 2>&1").status, 2);
    EXPECT_EQ(
        run("dnnvad detect -o " + folder.path() + "/x/ " + copy + " " + copy + " 2>&1").status, 2);
    EXPECT_EQ(
        run("dnnvad tune --labels " + source("samples") + " -o " + copy + " " + copy + " 2>&1")
            .status,
        2);
    EXPECT_EQ(read_file(copy), content);
}

TEST(Detect, GoesThroughSeveralRecordings) {
    const test::TempDir folder;
    const std::string both = kRoadsigns + " " + source("README.md") + " " + kStream;
    const test::Result mixed =
        run("dnnvad detect -f csv " + both + " 2>" + folder.path() + "/errors");
    EXPECT_EQ(mixed.status, 1);
    EXPECT_EQ(std::count(mixed.output.begin(), mixed.output.end(), '\n'), 1 + 3 + 2);
    const std::string errors = read_file(folder.path() + "/errors");
    EXPECT_NE(errors.find("README.md"), std::string::npos);
    EXPECT_NE(errors.find("3 recordings, 5 utterances, 1 failed"), std::string::npos) << errors;

    run("dnnvad detect -f textgrid -o " + folder.path() + " " + both + " 2>/dev/null");
    EXPECT_EQ(run("ls " + folder.path()).output,
              "errors\nroadsigns-8k.TextGrid\nstream-16k.TextGrid\n");
    EXPECT_EQ(
        run("dnnvad detect -f audacity " + kRoadsigns + " " + kStream + " 2>/dev/null").status, 2);
}

TEST(Detect, KeepsTheLibrarysLinesApart) {
    const test::TempDir folder;
    const std::string command = "dnnvad detect --set debug_log=1 " + kRoadsigns;
    EXPECT_EQ(table(run(command + " --library-log " + folder.path() + "/log").output).size(), 3U);
    EXPECT_NE(read_file(folder.path() + "/log").find("DEBUG:[dnnvad/"), std::string::npos);
    EXPECT_EQ(table(run(command + " 2>&1").output).size(), 3U);
}

TEST(Detect, SaysWhatIsWrong) {
    const test::TempDir folder;
    const std::string text = source("LICENSE");
    for (const std::string& arguments :
         {std::string(""), std::string("detect"), std::string("detct x"),
          "--nonsense " + kRoadsigns, "detect -f x " + kRoadsigns,
          "detect --set nothing=1 " + kRoadsigns, "detect --set max_sp_pause=soon " + kRoadsigns,
          "detect --set dnn_speech_threshold=1s " + kRoadsigns,
          "detect --set sample_rate=44100 " + kRoadsigns, "detect --margin 0.2 " + kRoadsigns}) {
        const test::Result result = run("dnnvad " + arguments + " 2>&1 >/dev/null");
        EXPECT_EQ(result.status, 2) << arguments;
        EXPECT_EQ(result.output.rfind("dnnvad: ", 0), 0U) << arguments << result.output;
    }
    EXPECT_EQ(run("dnnvad --help").status, 0);
    for (const std::string& arguments :
         {text, std::string("/nonexistent.wav"), std::string("/"),
          "--model " + text + " " + kRoadsigns, "--bleep " + text + " " + kRoadsigns,
          "--bleep " + source("models/bleep16k.txt") + " " + kRoadsigns,
          "--config /nonexistent " + kRoadsigns, "-o /nonexistent/x " + kRoadsigns,
          "--cut /dev/null/x " + kRoadsigns,
          kRoadsigns + " -o " + folder.path() + "/out --model " + text,
          kRoadsigns + " >/dev/full"}) {
        const test::Result result = run("{ dnnvad detect " + arguments + "; } 2>&1 >/dev/null");
        EXPECT_EQ(result.status, 1) << arguments;
        EXPECT_EQ(result.output.rfind("dnnvad: ", 0), 0U) << arguments << result.output;
        EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1) << result.output;
    }
    EXPECT_EQ(run("ls " + folder.path()).output, "");
}

}  // namespace
