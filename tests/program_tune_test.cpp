// dnnvad tune on the bundled recordings: its figures against what detect says of the same setting, all
// formats of labels, what is wrong with some, and the configuration that it writes.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <vector>

#include "tests/run_program.h"

namespace {

using nlohmann::json;
using test::read_file;
using test::run;
using test::source;

const std::string kRecordings =
    source("samples/roadsigns-8k.wav") + " " + source("samples/stream-16k.wav");
const std::string kOne = " --thresholds 0.2 --pauses 90 --margins 40 ";  // the defaults
const std::string kFew = " --thresholds 0.15,0.2,0.25 --pauses 300ms --margins 100ms ";

class Tune : public testing::Test {
protected:
    Tune() {
        std::string pattern = std::filesystem::temp_directory_path() / "dnnvad_tune_XXXXXX";
        folder = mkdtemp(pattern.data());
    }
    ~Tune() override { std::filesystem::remove_all(folder); }
    void write(const std::string& name, const std::string& text) const {
        std::ofstream(folder + "/" + name, std::ios::binary) << text;
    }
    // One setting on one recording with these labels; a failure is told with the rest.
    json one(const std::string& labels, const std::string& more = "") const {
        write("roadsigns-8k.txt", labels);
        const test::Result result = run("dnnvad tune -f json --labels " + folder + kOne + more +
                                        " " + source("samples/roadsigns-8k.wav"));
        EXPECT_EQ(result.status, 0);
        return json::parse(result.output);
    }
    std::string folder;
};

TEST_F(Tune, MeasuresWhatDetectHears) {
    std::vector<double> delays, ends{3.82, 8.14, 12.07, 8.88, 17.78};
    const auto heard =
        test::json_lines(run("dnnvad detect -f json " + kRecordings).output, "utterance");
    ASSERT_EQ(heard.size(), ends.size());
    for (const json& utterance : heard) {
        delays.push_back(1000 * (utterance["decided"].get<double>() - ends[delays.size()]));
    }
    std::sort(delays.begin(), delays.end());
    const json all = json::parse(
        run("dnnvad tune -f json --labels " + source("samples") + kOne + kRecordings).output);
    EXPECT_NEAR(all["delay"], delays[2], 1);
    EXPECT_NEAR(all["delay95"], delays[4], 1);
    EXPECT_EQ(all["utterances"], 5);
    for (const char* const measure :
         {"missed", "false-starts", "clipped", "cutoffs", "merged", "excess"}) {
        EXPECT_EQ(all[measure], 0) << measure;
    }
}

// Labels that are moved move the figures: speech is at 1.18 3.82, 5.67 8.14 and 9.80 12.07.
TEST_F(Tune, CountsWhatGoesWrong) {
    const json missed = one("1.18 3.82\n4.6 4.7\n5.67 8.14\n9.8 12.07\n");
    EXPECT_EQ(missed["missed"], 25);
    EXPECT_EQ(missed["clipped"], 0);
    const json false_start = one("9.8\t12.07\tword\n4.5\t5.2\tSilence \n1.18\t3.82\t\n");
    const double an_hour = 3600 / false_start["quiet_seconds"].get<double>();
    EXPECT_NEAR(false_start["false-starts"], std::round(100 * an_hour) / 100, 1e-6);
    EXPECT_NEAR(false_start["quiet_seconds"], 14.05 - 4.91, 0.01);
    EXPECT_NEAR(one("0.8 3.82\n5.67 8.14\n9.8 12.07\n")["clipped"], 33.3, 0.1);
    EXPECT_NEAR(one("1.18 4.5\n5.67 8.14\n9.8 12.07\n")["cutoffs"], 33.3, 0.1);
    EXPECT_NEAR(one("1.18 3.82\n5.67 7\n7.8 8.14\n9.8 12.07\n")["merged"], 25, 0.1);
    EXPECT_EQ(one("1.18 3.82\n5.67 7\n7.8 8.14\n9.8 12.07\n", "--join 0.9")["merged"], 0);
    // Beyond the end: one label is cut, one vanishes, and it is said.
    EXPECT_EQ(one("1.18 3.82\n5.67 8.14\n9.8 99\n100 101\n", "2>/dev/null")["utterances"], 3);
    EXPECT_NE(
        run("dnnvad tune --labels " + folder + kOne + source("samples/roadsigns-8k.wav") + " 2>&1")
            .output.find("go on to 101.00 s, but it ends at 14.05 s"),
        std::string::npos);
}

TEST_F(Tune, ReadsAllFormatsAlikeWithAnyNumberOfThreads) {
    const std::string command = " tune " + kRecordings + kFew + " --labels ";
    const test::Result plain = run("dnnvad" + command + source("samples") + " -j 1");
    ASSERT_EQ(plain.status, 0);
    ASSERT_EQ(std::count(plain.output.begin(), plain.output.end(), '\n'), 3 + 3 + 1);
    EXPECT_EQ(run("dnnvad" + command + source("samples") + " --jobs 5").output, plain.output);

    write("both.rttm",
          "SPEAKER roadsigns-8k 1 9.80 2.27 <NA> <NA> b <NA> <NA>\n"
          "SPEAKER stream-16k 1 1.56 7.32 <NA> <NA> a <NA> <NA>\nSPKR-INFO roadsigns-8k 1\n"
          "SPEAKER roadsigns-8k 1 1.18 2.64 <NA> <NA> a <NA> <NA>\n"
          "SPEAKER stream-16k 1 10.61 7.17\nSPEAKER roadsigns-8k 1 5.67 2.47\n");
    EXPECT_EQ(run("dnnvad" + command + folder).output, plain.output);
    write("roadsigns-8k.txt",
          "1.180000\t3.820000\t\r\n5.67\t8.14\tDanish\r\n"
          "\\\t100\t200\r\n9.8\t12.07\tsilent\r\n");
    write("stream-16k.TextGrid",
          "File type = \"ooTextFile\"\nObject class = \"TextGrid\"\n\n0\n19.46\n<exists>\n3\n"
          "\"TextTier\"\n\"speech\"\n0\n19.46\n1\n3.5\n\"a \"\"5\"\" point\"\n"
          "\"IntervalTier\"\n\"noise\"\n0\n19.46\n1\n0\n19.46\n\"hum\"\n"
          "\"IntervalTier\"\n\"Speech\"\n0\n19.46\n5\n0\n1.56\n\"\"\n1.56\n8.88\n\"deux\nmots\"\n"
          "8.88\n10.61\n\" sil\"\n10.61\n17.78\n\"trois\"\n17.78\n19.46\n\"\"\n");
    EXPECT_EQ(run("dnnvad" + command + folder).output, plain.output);
    // The long format, as detect writes it: in UTF-16 too.
    const std::string grids = folder + "/grids";
    std::filesystem::create_directory(grids);
    run("dnnvad detect -f textgrid -o " + grids + " " + kRecordings + " 2>/dev/null");
    const test::Result own = run("dnnvad" + command + grids);
    EXPECT_EQ(own.status, 0);
    run("cd " + grids + "; for f in *; do iconv -t UTF-16 $f >wide; mv wide $f; done");
    EXPECT_EQ(run("dnnvad" + command + grids).output, own.output);
    EXPECT_NE(own.output, plain.output);
}

TEST_F(Tune, WritesAConfigurationThatDetectsTheSame) {
    write("base.conf",
          "PARAM_MAX_WAIT_DURATION:100\nPARAM_MIN_SP_DURATION:40\nPARAM_MAX_SP_PAUSE:10\n");
    const std::string base = " --config " + folder + "/base.conf --set max_sp_duration=2000000 ";
    const std::string best = folder + "/best.conf";
    const std::string tune = "dnnvad tune --labels " + source("samples") + base + kRecordings +
                             " --thresholds 0.22 --end-ratio 0.75 --pauses 1.2s --margins 15 -o ";
    ASSERT_EQ(run(tune + best).status, 0);
    // The wait is raised above the pause, or a time-out would end every utterance.
    const std::string wanted =
        run("dnnvad detect -f csv " + base + kRecordings +
            " --set dnn_speech_threshold=0.22 --set dnn_sil_threshold=0.165 --set max_sp_pause=120 "
            "--set max_wait_duration=140 --set start_back_frame=15 --set end_back_frame=15")
            .output;
    EXPECT_EQ(run("dnnvad detect -f csv --config " + best + " " + kRecordings).output, wanted);
    EXPECT_NE(wanted.find("pause"), std::string::npos);
    EXPECT_EQ(wanted.find("time-out"), std::string::npos);
    EXPECT_NE(read_file(best).find("PARAM_MIN_SP_DURATION:40\n"), std::string::npos);
    EXPECT_EQ(run(tune + folder + "/none/best.conf 2>/dev/null").status, 1);
    EXPECT_EQ(run(tune + best + " --set MAX_sp_pause=5 2>/dev/null").status, 2);
}

TEST_F(Tune, TakesTheLeastBadAndSaysSo) {
    // Within limits first: the quickest of all cuts people off.
    std::vector<std::pair<double, double>> ranks;
    std::istringstream rows(
        run("dnnvad tune -f json --labels " + source("samples") + kFew + kRecordings).output);
    for (std::string line; std::getline(rows, line);) {
        const json row = json::parse(line);
        EXPECT_EQ(row["best"], ranks.empty());
        ranks.emplace_back(row["excess"], row["delay"]);
    }
    ASSERT_EQ(ranks.size(), 3U);
    EXPECT_TRUE(std::is_sorted(ranks.begin(), ranks.end()));
    EXPECT_GT(ranks[0].second, std::min(ranks[1].second, ranks[2].second));
    const test::Result result = run("dnnvad tune --labels " + source("samples") + kFew +
                                    kRecordings + " --max-delay 1 2>&1 >/dev/null");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "dnnvad: no setting meets all limits: the best breaks them least\n");
    // An empty recording, and nobody speaking: there is no delay, but there may be false starts.
    run("head -c 44 " + source("samples/roadsigns-8k.wav") + " >" + folder + "/empty.wav");
    write("empty.txt", "0 1\n"), write("roadsigns-8k.txt", "0 14 sil\n");
    const std::string silent = "dnnvad tune -f json --labels " + folder + kFew + folder +
                               "/empty.wav " + source("samples/roadsigns-8k.wav") + " 2>/dev/null ";
    EXPECT_EQ(run(silent + "-o " + folder + "/c").status, 1);
    EXPECT_FALSE(std::filesystem::exists(folder + "/c"));
    const test::Result starts = run(silent + "--target false-starts");
    EXPECT_EQ(starts.status, 0);
    const json best = json::parse(starts.output.substr(0, starts.output.find('\n')));
    EXPECT_EQ(best["best"], true);
    EXPECT_NEAR(best["false-starts"], 3 * 3600 / 14.05, 2);
    EXPECT_TRUE(best["missed"].is_null());
}

TEST_F(Tune, SaysWhichLabelsAreBroken) {
    const std::string grid =
        "\"ooTextFile\"\n\"TextGrid\"\n0\n9\n<exists>\n1\n\"IntervalTier\"\n\"a\"\n0\n9\n2\n";
    const struct {
        std::string name, text, message;
    } cases[] = {
        {"none", "", "roadsigns-8k: no .TextGrid, .txt or .rttm file labels this recording"},
        {"other.rttm", "SPEAKER other 1 0 1\n", "roadsigns-8k: no .TextGrid"},
        {"roadsigns-8k.txt", "\n# 1 2\n3\t3\tpoint\n", "roadsigns-8k.txt: holds no label"},
        {"roadsigns-8k.txt", "1 2\n\n3 2.5\n", "roadsigns-8k.txt:3: ends before it begins"},
        {"roadsigns-8k.txt", "1 inf\n", "roadsigns-8k.txt:1: a time is not finite"},
        {"roadsigns-8k.txt", "1,5 2,5\n", "roadsigns-8k.txt:1: has no start and end"},
        {"roadsigns-8k.rttm", "SPEAKER roadsigns-8k 1 -1 2\n",
         "roadsigns-8k.rttm:1: begins before"},
        {"roadsigns-8k.rttm", "SPEAKER roadsigns-8k 1\n", ".rttm:1: has no start and length"},
        {"roadsigns-8k.TextGrid", "1 2\n", "roadsigns-8k.TextGrid:1: a text is missing"},
        {"roadsigns-8k.TextGrid", grid + "0\n1\n\"x\"\n", "in a text format, or ends too early"},
        {"roadsigns-8k.TextGrid", grid + "0\n1\n\"x\"\n0.5\n2\n\"y\"\n",
         "TextGrid:15: begins before"},
        {"roadsigns-8k.TextGrid", grid + "0\n1\n\"x\n", "TextGrid:14: a text does not end"},
        {"roadsigns-8k.TextGrid", grid + "nan\n1\n\"x\"\n", "TextGrid:12: a time is not finite"}};
    for (const auto& broken : cases) {
        write(broken.name, broken.text);
        const test::Result result =
            run("dnnvad tune --labels " + folder + kOne + kRecordings + " 2>&1");
        EXPECT_EQ(result.status, 1) << broken.text;
        EXPECT_EQ(result.output.rfind("dnnvad: " + folder, 0), 0U) << result.output;
        EXPECT_NE(result.output.find(broken.message), std::string::npos) << result.output;
        std::filesystem::remove(folder + "/" + broken.name);
    }
}

}  // namespace
