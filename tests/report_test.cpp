// The segment report, on the console and as a TextGrid.
#include <fstream>
#include <iterator>
#include <string>

#include "dnnvad/dnn_vad.h"
#include "test_support.h"

namespace {

using test::printed;

std::string content(const char* path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST(Report, ConsoleAndTextGrid) {
    const test::TempFile file("as it was");
    tz_dnnvad::CMFE session;
    session._m_n_cur_frame = 1234;
    session.mfeSetLogLevel(1);
    EXPECT_EQ(printed([&] { session.PrintSegment(file.path()); }), ".\n0.000000\n");
    session._m_v_segments = {{922, 1000, 941, 981}};  // one record is the first and the last
    EXPECT_EQ(printed([&] { session.PrintSegment(nullptr); }),
              "<9.22 10.00> <9.41 9.81>\nhead sil is 190 ms\ntail sil is 190 ms\n.\n0.779999\n");
    session._m_v_segments = {{10, 123, 30, 100}, {20000, 50001, 20001, 49982}, {7, -1, 8, -1}};
    EXPECT_EQ(
        printed([&] { session.PrintSegment(file.path()); }),
        "<0.10 1.23> <0.30 1.00>\n<200.00 500.01> <200.01 499.82>\n<0.07 -0.01> <0.08 -0.01>\n"
        "tail sil is 0 ms\n.\n301.059998\n");
    EXPECT_EQ(content(file.path()), "as it was");  // the level is too low to write it

    session.mfeSetParam(8, 9);
    session._m_v_segments.pop_back();
    printed([&] { session.PrintSegment(file.path()); });
    EXPECT_EQ(
        content(file.path()),
        "File type = \"ooTextFile\"\nObject class = \"TextGrid\"\n\nxmin = 0\nxmax = 12.34\n"
        "tiers? <exists>\nsize = 1\nitem []:\n    item [1]:\n        class = \"IntervalTier\"\n"
        "        name = \"1\"\n        xmin = 0\n        xmax = 12.34\n"
        "        intervals: size = 2\n        intervals [1]\n            xmin = 0.10\n"
        "            xmax = 1.23\n            text = \"speech\"\n        intervals [2]\n"
        "            xmin = 200.00\n            xmax = 500.01\n            text = \"speech\"\n");
    session._m_v_segments.clear();
    EXPECT_EQ(printed([&] { session.PrintSegment("/nowhere/grid"); }),
              ".\n0.000000\nERROR:[dnnvad/dnn_vad_report.cpp:]open /nowhere/grid failed\n");
}

}  // namespace
