// dnnvad plot: what its page and its picture hold, and how large they get.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/run_program.h"

namespace {

using test::read_file;
using test::run;
using test::source;

// A place for outputs, gone with the test.
class Plot : public testing::Test {
protected:
    Plot() { std::filesystem::create_directory(folder_); }
    ~Plot() override { std::filesystem::remove_all(folder_); }
    std::string at(const std::string& name) const { return folder_ + "/" + name; }
    static nlohmann::json facts(const std::string& page) {
        const std::string mark = "id=\"facts\">";
        const std::size_t begin = page.find(mark) + mark.size();
        return nlohmann::json::parse(page.substr(begin, page.find("</script>", begin) - begin));
    }

    const std::string folder_ =
        std::filesystem::temp_directory_path() / ("dnnvad_plot_" + std::to_string(getpid()));
    const std::string recording_ = source("samples/roadsigns-8k.wav");
};

TEST_F(Plot, HoldsWhatDetectFindsAndWhatIsNotUsual) {
    const std::string options =
        " --set max_sp_pause=150ms --set dnn_sil_threshold=0.25 " + recording_;
    ASSERT_EQ(run("dnnvad plot -o " + at("a.html") + " --title '</script>&\xff'" + options).status,
              0);
    ASSERT_EQ(run("dnnvad plot -o " + at("a.svg") + " --title '</script>&\xff'" + options).status,
              0);
    const nlohmann::json all = facts(read_file(at("a.html")));
    std::size_t count = 0;
    for (const auto& u :
         test::json_lines(run("dnnvad detect -f json" + options).output, "utterance")) {
        const nlohmann::json& segment = all["segments"].at(count++);
        for (const auto& [key, value] : u.items()) {
            EXPECT_TRUE(key == "type" || key == "file" || segment.at(key) == value) << key;
        }
    }
    EXPECT_GT(count, 3U);
    EXPECT_EQ(all["segments"].size(), count);
    EXPECT_EQ(all["title"], "</script>&\xEF\xBF\xBD");
    EXPECT_EQ(all["parameters"].size(), 2U) << all["parameters"];

    std::string svg = read_file(at("a.svg"));
    const std::size_t image = svg.find("base64,");
    ASSERT_NE(image, std::string::npos);
    svg.erase(image, svg.find('"', image) - image);  // (where any letters may stand)
    std::size_t bars = 0;
    for (std::size_t k = 0; (k = svg.find("#0f766e\"/>", k + 1)) != std::string::npos;) {
        bars += svg.rfind("y=\"66\"", k) > svg.rfind("<rect", k);
    }
    EXPECT_EQ(bars, count);
    EXPECT_NE(svg.find("&lt;/script>&amp;"), std::string::npos);
    EXPECT_EQ(svg.find("nan"), std::string::npos);
}

TEST_F(Plot, StaysSmallForLongRecordings) {
#ifdef DNNVAD_SANITIZED
    GTEST_SKIP() << "slow, and the sizes are the same";
#endif
    const auto size = [&](int copies, const std::string& name) {
        const std::string times = std::to_string(copies);
        EXPECT_EQ(run("for i in $(seq " + times + "); do tail -c +45 " + recording_ +
                      "; done | dnnvad plot --raw 8000 - -o " + at(name))
                      .status,
                  0);
        return std::filesystem::file_size(at(name));
    };
    const std::uintmax_t once = size(1, "1.html"), often = size(43, "43.html");  // 14 s, 10 minutes
    EXPECT_LT(once, 250'000U);
    EXPECT_LT(often, 10'000'000U);
    EXPECT_GT(often, 20 * once);  // every frame is still there
    EXPECT_EQ(facts(read_file(at("43.html")))["perColumn"], 1);
    EXPECT_LT(size(43, "43.svg"), 250'000U);
}

TEST_F(Plot, SaysWhatIsWrongAndLeavesNothing) {
    for (const auto& [status, command] : {std::pair{2, recording_},
                                          {2, recording_ + " -o " + at("b.png")},
                                          {1, "/nonexistent -o " + at("b.html")},
                                          {1, source("README.md") + " -o " + at("b.svg")},
                                          {1, recording_ + " -o /nonexistent/b.html"},
                                          {1, "--raw 8000 /dev/null -o " + at("b.svg")}}) {
        const test::Result result = run("dnnvad plot " + command + " 2>&1");
        EXPECT_EQ(result.status, status) << command;
        EXPECT_EQ(result.output.rfind("dnnvad: ", 0), 0U) << result.output;
    }
    EXPECT_TRUE(std::filesystem::is_empty(folder_));
    EXPECT_EQ(run("head -c 20 /dev/zero | dnnvad plot --raw 8000 - -o " + at("b.svg")).status, 0);
}

}  // namespace
