// Replays the golden traces, which the reference in tests/reference made, on the library: every
// field, state, segment and checksum of audio must be equal, every score within the tolerance that
// different FFT libraries leave.
#include <gtest/gtest.h>

#include <filesystem>

#include "session_trace.h"

namespace {

const std::string kFolder = DNNVAD_SOURCE_DIR "/tests/golden";
constexpr double kScoreTolerance = 2e-5;

std::vector<std::string> golden_names() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(kFolder)) {
        if (entry.path().extension() == ".trace")
            names.push_back(entry.path().stem().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool same(const std::string& expected, const std::string& actual) {
    if (expected.rfind("~ ", 0) != 0 || actual.rfind("~ ", 0) != 0)
        return expected == actual;
    std::istringstream expected_scores(expected.substr(2));
    std::istringstream actual_scores(actual.substr(2));
    double wanted = 0;
    double got = 0;
    while (expected_scores >> wanted) {
        if (!(actual_scores >> got) || std::abs(wanted - got) > kScoreTolerance)
            return false;
    }
    if (actual_scores >> got)
        return false;
    return true;
}

class Golden : public testing::TestWithParam<std::string> {};

TEST_P(Golden, LibraryFollowsTheTrace) {
    std::ifstream file(kFolder + "/" + GetParam() + ".trace");
    session_trace::Trace trace(kFolder);
    std::string line;
    size_t compared = 0;
    for (bool more = bool(std::getline(file, line)); more;) {
        if (line.rfind("> ", 0) != 0) {
            more = bool(std::getline(file, line));
            continue;
        }
        const std::string operation = line.substr(2);
        testing::internal::CaptureStdout();
        const std::vector<std::string> actual = trace.operation(operation);
        testing::internal::GetCapturedStdout();
        size_t i = 0;
        while ((more = bool(std::getline(file, line))) && line.rfind("> ", 0) != 0) {
            ASSERT_LT(i, actual.size()) << "after: " << operation << "\nmissing: " << line;
            ASSERT_TRUE(same(line, actual[i]))
                << "after: " << operation << "\nexpected: " << line << "\nactual:   " << actual[i];
            ++i, ++compared;
        }
        ASSERT_EQ(i, actual.size()) << "after: " << operation;
    }
    EXPECT_GT(compared, 0U);
}

INSTANTIATE_TEST_SUITE_P(Traces, Golden, testing::ValuesIn(golden_names()),
                         [](const auto& info) { return info.param; });

}  // namespace
