// The program as a user runs it: on the bundled recordings, and on files that are no recordings.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/temp_file.h"

namespace {

struct Result {
    int status;
    std::string output;
};

Result run(const std::string& arguments) {
    FILE* const pipe = popen((DNNVAD_PROGRAM " " + arguments).c_str(), "r");
    Result result{-1, ""};
    char buffer[4096];
    for (std::size_t got; (got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
        result.output.append(buffer, got);
    }
    result.status = WEXITSTATUS(pclose(pipe));
    return result;
}

std::string source(const std::string& path) { return DNNVAD_SOURCE_DIR "/" + path; }

std::string read_file(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

struct Line {
    double start, end, speech, last;
    std::string reason;
};

// The program's table without its heading; a line of any other form fails the test.
std::vector<Line> table(const std::string& output) {
    std::istringstream lines(output);
    std::string text;
    std::getline(lines, text);
    EXPECT_EQ(text, "   start      end   speech     last  ended by");
    std::vector<Line> rows;
    while (std::getline(lines, text)) {
        std::istringstream fields(text);
        Line row;
        fields >> row.start >> row.end >> row.speech >> row.last;
        EXPECT_TRUE(fields) << text;
        std::getline(fields >> std::ws, row.reason);
        rows.push_back(row);
    }
    return rows;
}

class Recording : public testing::TestWithParam<const char*> {};

TEST_P(Recording, HasTheUtterancesThatWereMarkedByHand) {
    const std::string base = source("samples/") + GetParam();
    const Result result = run(base + ".wav");
    ASSERT_EQ(result.status, 0);
    const std::vector<Line> rows = table(result.output);

    std::ifstream marks(base + ".txt");
    std::size_t count = 0;
    for (double from, to; marks >> from >> to; ++count) {
        ASSERT_LT(count, rows.size()) << result.output;
        EXPECT_NEAR(rows[count].speech, from, 0.3);
        EXPECT_NEAR(rows[count].last, to, 0.3);
        EXPECT_LE(rows[count].start, rows[count].speech);
        EXPECT_GE(rows[count].end, rows[count].last);
    }
    EXPECT_GT(count, 0U);
    EXPECT_EQ(rows.size(), count) << result.output;
}

INSTANTIATE_TEST_SUITE_P(Samples, Recording, testing::Values("roadsigns-8k", "stream-16k"));

TEST(Program, WritesATextGridWhoseIntervalsTileTheRecording) {
    const test::TempFile grid("");
    const std::string recording = source("samples/roadsigns-8k.wav");
    ASSERT_EQ(run(std::string("--textgrid ") + grid.path() + " " + recording).status, 0);
    std::istringstream text(read_file(grid.path()));
    double begin = -1, end = -1, duration = -1, covered = 0;
    int speech = 0;
    for (std::string line; std::getline(text, line);) {
        if (std::sscanf(line.c_str(), "xmax = %lf", &duration) == 1 ||
            std::sscanf(line.c_str(), "            xmin = %lf", &begin) == 1) {
            continue;
        }
        if (line.rfind("            xmax", 0) == 0 &&
            std::sscanf(line.c_str(), " xmax = %lf", &end) == 1) {
            EXPECT_EQ(begin, covered);
            EXPECT_GT(end, begin);
            covered = end;
        }
        speech += line == "            text = \"speech\"";
    }
    EXPECT_EQ(covered, duration);
    EXPECT_EQ(speech, 3);
}

// Keys that the file leaves out keep their defaults: a start margin of 0 comes only from its key.
TEST(Program, AppliesTheConfigurationFile) {
    const test::TempFile config("# margins\nPARAM_START_BACK_FRAME:0\nPARAM_END_BACK_FRAME: 5\n");
    const std::string recording = source("samples/roadsigns-8k.wav");
    const Result result = run(std::string("--config ") + config.path() + " " + recording);
    ASSERT_EQ(result.status, 0);
    const std::vector<Line> rows = table(result.output);
    ASSERT_EQ(rows.size(), table(run(recording).output).size());
    for (const Line& row : rows) {
        EXPECT_EQ(row.start, row.speech);
        EXPECT_NEAR(row.end, row.last + 0.05, 1e-6);
    }
}

TEST(Program, KeepsTheLibrarysLinesApart) {
    const test::TempFile config("PARAM_DEBUG_LOG:1\n");
    const std::string arguments = std::string("--verbose --config ") + config.path() + " " +
                                  source("samples/roadsigns-8k.wav");
    EXPECT_EQ(table(run(arguments + " 2>/dev/null").output).size(), 3U);
    EXPECT_NE(run(arguments + " 2>&1 >/dev/null").output.find("DEBUG:[dnnvad/"), std::string::npos);
}

TEST(Program, SaysWhatIsWrong) {
    const std::string recording = source("samples/roadsigns-8k.wav");
    const std::string text = source("README.md");
    EXPECT_EQ(run("2>/dev/null").status, 2);
    EXPECT_EQ(run("--nonsense 2>/dev/null").status, 2);
    EXPECT_EQ(run("--help").status, 0);
    for (const std::string& arguments :
         {text, std::string("/nonexistent.wav"), "--model " + text + " " + recording,
          "--config /nonexistent " + recording, "--textgrid /nonexistent/x " + recording}) {
        const Result result = run(arguments + " 2>&1 >/dev/null");
        EXPECT_EQ(result.status, 1) << arguments;
        EXPECT_EQ(result.output.rfind("dnnvad: ", 0), 0U) << arguments;
    }
    EXPECT_EQ(run(recording + " >/dev/full 2>/dev/null").status, 1);
}

}  // namespace
