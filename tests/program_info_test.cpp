// dnnvad info beside the library, on model files whole, cut off and spoilt; and dnnvad bench.
#include <gtest/gtest.h>

#include <deque>
#include <nlohmann/json.hpp>
#include <random>

#include "dnnvad/dnn_vad.h"
#include "tests/model_writer.h"
#include "tests/run_program.h"
#include "tests/temp_file.h"

namespace {

using nlohmann::json;

using Verdicts = std::vector<bool>;  // of files: usable
using Files = std::deque<test::TempFile>;

std::string names(const Files& files) {
    std::string text;
    for (const test::TempFile& file : files) {
        text += std::string(" ") + file.path();
    }
    return text;
}

// Whether a host can start with each model: it ends with 1, not 2 or an assertion, when nothing follows.
Verdicts starts_host(const Files& files) {
    std::istringstream statuses(test::run("exec 2>/dev/null; for model in" + names(files) +
                                          "; do " DNNVAD_HOST
                                          " $model </dev/null >/dev/null; echo $?; done")
                                    .output);
    Verdicts usable;
    for (int status; statuses >> status;) {
        usable.push_back(status == 1);
    }
    return usable;
}

Verdicts loads_as_template(const Files& files) {
    Verdicts usable;
    for (const test::TempFile& file : files) {
        tz_dnnvad::CMFE session;
        session.mfeInit_load_model(test::source("models/vad8k.bin").c_str(), file.path());
        usable.push_back(session._m_n_bleep_detect != 0);
    }
    return usable;
}

json info(const std::string& files) {
    return json::parse(test::run("dnnvad info -f json " + files + " 2>/dev/null").output);
}

// Runs info once on all contents and compares each verdict with the library's; explanations name a
// byte within the file. Returns how many were refused.
int compare(const std::vector<std::string>& contents, Verdicts (*library)(const Files&)) {
    Files files;
    for (const std::string& content : contents) {
        files.emplace_back(content);
    }
    const json all = info(names(files));
    const Verdicts usable = library(files);
    EXPECT_EQ(all.size(), contents.size());
    EXPECT_EQ(usable.size(), contents.size());
    int refused = 0;
    for (std::size_t i = 0; i < std::min(all.size(), usable.size()); ++i) {
        const std::string error = all[i].value("error", "");
        // Whether there is memory for what is claimed is the machine's to say.
        constexpr double kPlenty = 1e8;
        double claimed = 0;
        if (error.empty() && !all[i]["doubts"].empty()) {
            std::sscanf(all[i]["doubts"][0].get<std::string>().c_str(), "the layers need %lf",
                        &claimed);
        }
        if (claimed > kPlenty) {
            continue;
        }
        EXPECT_EQ(error.empty(), usable[i]) << i << ": " << all[i];
        long offset = -1;
        const std::size_t at = error.find(": at byte ");
        if (!error.empty()) {
            ++refused;
            EXPECT_NE(at, std::string::npos) << error;
            std::sscanf(error.c_str() + std::min(at, error.size()), ": at byte %ld: ", &offset);
            EXPECT_GE(offset, 0);
            EXPECT_LE(offset, static_cast<long>(contents[i].size())) << error;
            EXPECT_NE(error.find(" expected, but "), std::string::npos) << error;
        }
    }
    return refused;
}

TEST(Info, RefusesWhatTheLibraryRefusesAndDescribesTheRest) {
    const std::string whole = test::random_model({52, 8, 9}).bytes();
    std::vector<std::string> contents{whole, "", test::random_model({52, 5}).bytes(),
                                      whole + "rest"};
    for (std::size_t end = 1; end < whole.size(); end += 1 + whole.size() / 60) {
        contents.push_back(whole.substr(0, end));
    }
    contents.push_back(whole.substr(0, whole.size() - 1));
    const std::size_t text = test::random_model({52, 8, 9}).text().size();
    std::mt19937 random(1);
    for (int i = 0; i < 120; ++i) {  // mostly where the structure is: header, lines, layer table
        const std::size_t at = random() % (i % 3 == 0 ? 50 : i % 3 == 1 ? text : text + 16);
        std::string spoilt = whole;
        spoilt[i % 3 == 2 ? text + at % 16 : at] = "\n\0\xFF-9"[random() % 5];
        contents.push_back(spoilt);
    }
    const auto with = [&](auto change) {
        test::Model model = test::random_model({52, 8, 9});
        change(model);
        contents.push_back(model.bytes());
    };
    for (const int dimension : {-1, 0, 25, 40, 65537, 2000000000}) {
        with([&](test::Model& m) { m.header[0] = dimension; });
    }
    for (const char* line :
         {"0\n", "-5\n", "x\n", "2147483647\n", "99999999999\n", "10\n", "600\n"}) {
        with([&](test::Model& m) { m.count_line = line; });
    }
    for (const int number : {0, 1, 2, 4, -3, 2147483647}) {
        with([&](test::Model& m) { m.layer_number = number; });
    }
    for (const int size : {0, -1, 53, 26, 2147483647}) {
        with([&](test::Model& m) { m.sizes[0] = size; });
        with([&](test::Model& m) { m.sizes[2] = size; });
        with([&](test::Model& m) { m.sizes = {size}; });
    }
    with([](test::Model& m) { m.rev_var_line = "meanvec 26\n"; });
    with([](test::Model& m) { m.mean_line = "  meanvec\t+26 and more\n"; });
    with([](test::Model& m) { m.header_rest = std::string(1100, 'x') + "\n"; });
    for (const int rate : {8000, 16000, 11025}) {
        test::Model wide = test::loudness_model(40);
        wide.header[1] = rate;
        contents.push_back(wide.bytes());
    }
    const int refused = compare(contents, starts_host);
    EXPECT_GT(refused, 100);
    EXPECT_LT(refused, static_cast<int>(contents.size()) - 20);
}

TEST(Info, SaysWhatIsInAModelAndWhereItGoesWrong) {
    const json models =
        info(test::source("models/vad8k.bin") + " " + test::source("models/vad16k.bin"));
    EXPECT_EQ(models[0]["layers"], json({442, 96, 64, 9}));
    EXPECT_LT(models[0]["means"]["low"], models[0]["means"]["high"]);
    EXPECT_EQ(models[1]["sample_rate_hz"], 16000);
    EXPECT_EQ(models[1]["multiply_adds_per_frame"], 680 * 96 + 96 * 64 + 64 * 9);
    EXPECT_TRUE(models[0]["doubts"].empty() && models[1]["doubts"].empty()) << models;
    EXPECT_GT(models[0]["session_bytes_measured"], 49321 * 4);

    test::Model model = test::random_model({52, 9});
    model.mean_line = "meanvec 27\n";
    const std::string head = "three\nlines\nof text\n";
    const test::TempFile file(model.bytes());
    const test::Result result = test::run(std::string("dnnvad info ") + file.path() + " 2>&1");
    EXPECT_EQ(result.status, 1);
    const std::string place =
        "at byte " + std::to_string(head.size() + 21 + 4) + ": the line \"meanvec 26\"";
    EXPECT_NE(result.output.find(place), std::string::npos) << result.output;
    EXPECT_NE(test::run("dnnvad info").output.find("vad16k.bin"), std::string::npos);
}

TEST(Info, DrawsATemplateAndAgreesWithTheLibraryOnSpoiltOnes) {
    const std::string path = test::source("models/bleep8k.txt"), whole = test::read_file(path);
    const json about = info(path + " " + test::source("models/bleep16k.txt"));
    EXPECT_EQ(about[0]["bins"], 128);
    EXPECT_EQ(about[1]["bins"], 256);
    EXPECT_GT(about[0]["template_10_ms_a_column"].size(), 10U);
    std::vector<std::string> contents{whole, whole.substr(0, 1000), whole.substr(0, 3900)};
    for (const std::size_t at : {300U, 2000U, 3839U, 3843U, 5000U}) {
        std::string spoilt = whole;
        spoilt[at] = 'x';
        contents.push_back(spoilt);
    }
    EXPECT_EQ(compare(contents, loads_as_template), 4);
}

TEST(Bench, MeasuresBothBundledModels) {
    const test::Result result = test::run("dnnvad bench --seconds 0.5 -f json");
    ASSERT_EQ(result.status, 0);
    const json all = json::parse(result.output);
    ASSERT_EQ(all["models"].size(), 2U);
    for (const json& model : all["models"]) {
        EXPECT_EQ(model["frames"], 50);
        EXPECT_GT(model["median_us"], 0.0);
        EXPECT_LE(model["median_us"], model["p99_us"]);
        EXPECT_NEAR(model["real_time_factor"].get<double>(), model["median_us"].get<double>() / 1e4,
                    1e-9);
        EXPECT_GT(model["session_bytes"], 300000);
        EXPECT_EQ(model["allocations_per_frame"], model["rate_hz"] == 8000 ? 0.0 : 1.0);
    }
    const std::string recording = test::source("samples/roadsigns-8k.wav");
    EXPECT_EQ(test::run("dnnvad bench --seconds 0.2 " + recording).status, 0);
    EXPECT_EQ(test::run("dnnvad bench --model " + recording + " 2>/dev/null").status, 1);
}

}  // namespace
